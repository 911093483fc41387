#pragma once

class QWidget;
class SshConnection;

// Puts an SSH connection's questions to the user, without blocking the
// window: an unknown host key as a message box titled "Tarnwick" showing its
// SHA-256 fingerprint with "Accept and save", "Accept once" and "Cancel"
// (`SshHostKeyQuestion`); passphrases, passwords and keyboard-interactive
// prompts as a small dialog (`SshSecretsDialog`) whose answers go straight
// to the connection and are not kept.
void attachSshPrompts(QWidget *parent, SshConnection *ssh);
