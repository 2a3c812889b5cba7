// Sending DICOM files to an archive (a PACS) over the DICOM network
// protocol: one association, a C-ECHO to see that the peer answers, then a
// C-STORE for each file, with DCMTK's SCU classes.
#pragma once

#include <QString>
#include <QStringList>

namespace korux {

struct DicomPeer {
    QString host;
    quint16 port = 0;
    QString calledAe = QStringLiteral("ANY-SCP"); // the archive's AE title
    QString callingAe = QStringLiteral("KORUX"); // ours
    int timeoutSeconds = 30; // to connect, and for each answer
};

// The default AE titles, and the longest an AE title can be (16
// characters of printable ASCII without a backslash).
constexpr int kAeTitleLength = 16;

// HOST:PORT (a name, an IPv4 address, or [IPv6]:PORT) into peer. False
// with the reason in error.
bool parsePeer(const QString& text, DicomPeer* peer, QString* error);
// An AE title checked: 1 to 16 characters, printable ASCII, no backslash,
// not only spaces.
bool checkAeTitle(const QString& title, QString* error);

// Sends files to peer on one association: C-ECHO first, then one C-STORE a
// file, in order. Stops at the first failure: a refused association, no
// answer in time, a file that cannot be read, or a store the peer does not
// confirm; false with one line in error. stored gets the files the peer
// confirmed.
bool sendDicomFiles(const DicomPeer& peer, const QStringList& files, QStringList* stored, QString* error);

} // namespace korux
