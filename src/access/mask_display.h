#pragma once

#include <QString>

// The subnet mask as the access-list editor writes it and ACLIST.ini stores
// it: each octet as a blank and its digits, a one-digit octet padded with a
// second blank, the four joined by "." (a 24-bit prefix gives
// " 255. 255. 255. 0 "). The mask is summed as a double and split into a high
// and a low 16-bit half before the octets are taken, as the editor's slider
// has always done; prefixes outside 0..32 are clamped.
QString maskDisplayForm(int prefix);
