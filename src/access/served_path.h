#pragma once

#include <QString>

// Whether the file `name`, asked for under an access row's `folder`, stays
// inside that folder: no "..", no absolute name, and links (or, for a new
// upload, its folder) resolve to somewhere under it. What --confine checks
// for both TFTP profiles.
bool pathStaysInside(const QString &folder, const QString &name);
