// korux's side of a shot's picture files (imaging/ShotPictures.h): the
// command-line options that ask for them, their checks, and korux dicom.
#pragma once

#include "tools/Commands.h"
#include "imaging/ShotPictures.h"

namespace korux {

// --dicom, --dicom-presentation (or --presentation), --patient-name,
// --patient-id, --study, --study-uid, --teeth, --region, --laterality,
// --send with --called-ae and --calling-ae.
PictureOptions pictureOptions(const CommandLine& line);

// The picture options of a command line checked: the patient, study,
// anatomy and send options need DICOM files (acquire: --dicom); each value
// is one DICOM value (64 bytes at most, no backslash, no control character;
// a person name as DICOM takes it, a UID of digits and dots), the anatomy
// agrees with itself and the peer is HOST:PORT. False with the reason in
// error.
bool checkPictureOptions(const QString& command, const CommandLine& line, bool dicomAsked, QString* error);
bool checkDicom(const CommandLine& line, QString* error);

// The picture options for a shot of unit: as given, or, when they name no
// anatomy and the unit is a virtual sensor showing the phantom, with what
// the phantom shows. A real sensor's shots get no anatomy unless given.
PictureOptions picturesFor(const PictureOptions& options, const DicomUnit& unit);

// acquire --send: the shot's DICOM files among files sent to the options'
// peer, each stored one said on the console. False, having said why in one
// line, when the peer did not store them all.
bool sendShotFiles(Session& session, const PictureOptions& options, const QVector<ShotFile>& files);

// korux send FILE... --peer HOST:PORT: checks and the command.
bool checkSend(const CommandLine& line, QString* error);
int runSend(Session& session, const CommandLine& line);

// Before the application is made: korux runs a GUI application (text in the
// oscilloscope plot needs one) on Qt's minimal platform with its fonts (no
// display, nothing left allocated at exit), without Qt's complaint about a
// missing runtime directory, which is of no use to it.
void prepareHeadlessGui();

} // namespace korux
