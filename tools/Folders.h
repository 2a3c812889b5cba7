// The folders korux writes in: checked before a sensor is armed (an exposure
// whose files cannot land is a dose given for nothing), the user's state
// directory with the default virtual machine and the rescue folder.
#pragma once

#include <QString>

namespace korux {

// A folder korux is about to write in: it exists or its parent does (only
// the last level is created), it can be written, and it has room for bytes.
// Creates it when missing. False with one line in reason.
bool prepareFolder(const QString& folder, qint64 bytes, QString* reason);

// The room left on the file system of path, -1 when it cannot be told.
qint64 freeBytes(const QString& path);

// Bytes a shot may take on the disk for one unit: the image and its black
// image as 16-bit PNG (stored uncompressed at worst), the 8-bit preview, the
// description and plot, and the DICOM files asked for, for a sensor of the
// size code (1: 1000 x 1506, 2: 1300 x 1706; 0: the larger).
qint64 shotBytes(int sizeCode, int dicomFiles);

// korux's directory in the user's state directory ($XDG_STATE_HOME/korux,
// else ~/.local/state/korux); not created.
QString stateDirectory();

// Where a shot goes that cannot be written where asked.
QString rescueDirectory();

} // namespace korux
