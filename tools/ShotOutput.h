// korux's side of a shot's picture files (tools/ShotPictures.h): the
// command-line options that ask for them and writing them.
#pragma once

#include "tools/Commands.h"
#include "tools/ShotPictures.h"

namespace korux {

// --dicom, --dicom-presentation (or --presentation), --patient-name,
// --patient-id, --study.
PictureOptions pictureOptions(const CommandLine& line);

// Writes the file (whole or not at all) and says so; false, having said
// why, when it cannot.
bool writeShotFile(Session& session, const ShotFile& file, bool replace);

// Before the application is made: korux runs a GUI application (text in the
// oscilloscope plot needs one) on Qt's minimal platform with its fonts (no
// display, nothing left allocated at exit), without Qt's complaint about a
// missing runtime directory, which is of no use to it.
void prepareHeadlessGui();

} // namespace korux
