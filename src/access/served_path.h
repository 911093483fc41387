#pragma once

#include <QString>

// How a requested file name becomes a path under an access row's folder, for
// every protocol that serves those folders (TFTP, HTTP).
namespace ServedPath {

// The row's folder and the name joined with the platform's separator, as is:
// nothing is resolved or refused here.
QString join(const QString &folder, const QString &name);

// Whether `name` stays inside `folder`: no "..", no absolute name, and once
// links are followed the file (or, for a file still to be created, its
// folder) resolves to somewhere under the folder's own resolved path. An
// empty name, a missing folder and a dangling link never stay inside.
bool staysInside(const QString &folder, const QString &name);

} // namespace ServedPath
