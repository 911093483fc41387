#pragma once

// Runs the program: parses the command line, builds the application and
// enters the event loop. Returns the process exit status.
int tarnwickMain(int argc, char **argv);
