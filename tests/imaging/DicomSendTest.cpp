// Sending to a store SCP of the test's own, on a loopback port: every store
// confirmed, or the one the SCP refuses said in one line, and the files
// after it not sent.
#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmnet/scp.h>
#include <dcmtk/oflog/oflog.h>

#include <gtest/gtest.h>

#include "support/FreePort.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "imaging/DicomExport.h"
#include "imaging/DicomSend.h"

using namespace korux;

namespace {

quint16 freePort()
{
    return korux_test::freeLoopbackPort();
}

// A store SCP for one association that answers each C-STORE with status
// (after accepting the first `accept` stores).
class StoreScp : public DcmSCP {
public:
    StoreScp(quint16 port, Uint16 status, int accept)
        : status_(status)
        , accept_(accept)
    {
        setPort(port);
        setAETitle("TESTSCP");
        setConnectionBlockingMode(DUL_NOBLOCK);
        setConnectionTimeout(20);
        OFList<OFString> syntaxes;
        syntaxes.push_back(UID_LittleEndianExplicitTransferSyntax);
        syntaxes.push_back(UID_LittleEndianImplicitTransferSyntax);
        addPresentationContext(UID_VerificationSOPClass, syntaxes);
        addPresentationContext(UID_DigitalIntraOralXRayImageStorageForProcessing, syntaxes);
        addPresentationContext(UID_DigitalIntraOralXRayImageStorageForPresentation, syntaxes);
    }

    std::atomic<int> stores { 0 };

protected:
    OFCondition handleIncomingCommand(
        T_DIMSE_Message* message, const DcmPresentationContextInfo& info) override
    {
        if (message->CommandField != DIMSE_C_STORE_RQ)
            return DcmSCP::handleIncomingCommand(message, info);
        T_DIMSE_C_StoreRQ& request = message->msg.CStoreRQ;
        T_ASC_PresentationContextID context = info.presentationContextID;
        DcmDataset* data = nullptr;
        const OFCondition received = receiveSTORERequest(request, context, data);
        delete data;
        if (received.bad())
            return received;
        const int index = stores++;
        return sendSTOREResponse(context, request, index < accept_ ? Uint16(0) : status_);
    }

    OFBool stopAfterCurrentAssociation() override { return OFTrue; }
    OFBool stopAfterConnectionTimeout() override { return OFTrue; }

private:
    Uint16 status_;
    int accept_;
};

class DicomSend : public ::testing::Test {
protected:
    void SetUp() override
    {
        OFLog::configure(OFLogger::OFF_LOG_LEVEL);
        DicomShot shot;
        shot.raw = QImage(64, 48, QImage::Format_Grayscale16);
        std::memset(shot.raw.bits(), 0x10, static_cast<size_t>(shot.raw.sizeInBytes()));
        shot.description = QStringLiteral("[SENSOR]\r\nSize=1\r\n");
        shot.acquired = QDateTime(QDate(2026, 3, 4), QTime(10, 11, 12), Qt::OffsetFromUTC, 0);
        shot.identity = DicomSession::instance().nextShot(
            QStringLiteral("SEND-1"), QString(), QString(), QStringLiteral("U1"), shot.acquired);
        QString error;
        for (DicomIntent intent : { DicomIntent::ForProcessing, DicomIntent::ForPresentation }) {
            const QString path = directory_.filePath(
                intent == DicomIntent::ForProcessing ? QStringLiteral("a.dcm") : QStringLiteral("b.dcm"));
            QFile file(path);
            ASSERT_TRUE(file.open(QIODevice::WriteOnly));
            file.write(encodeDicom(shot, intent, &error));
            files_ << path;
        }
        peer_.host = QStringLiteral("127.0.0.1");
        peer_.port = freePort();
        peer_.calledAe = QStringLiteral("TESTSCP");
        peer_.timeoutSeconds = 5;
    }

    // Runs the SCP on a thread while files are sent.
    bool sendTo(StoreScp& scp, QStringList* stored, QString* error)
    {
        std::thread server([&scp] { scp.listen(); });
        // The SCP listens once its thread runs; a refused connection is
        // tried again for a moment.
        bool sent = false;
        for (int attempt = 0; attempt < 50; ++attempt) {
            stored->clear();
            sent = sendDicomFiles(peer_, files_, stored, error);
            if (sent || !error->contains(QStringLiteral("Connection refused")))
                break;
            ::usleep(100000);
        }
        server.join();
        return sent;
    }

    QTemporaryDir directory_;
    QStringList files_;
    DicomPeer peer_;
};

} // namespace

TEST_F(DicomSend, EveryConfirmedStoreIsReported)
{
    StoreScp scp(peer_.port, 0x0000, 0);
    QStringList stored;
    QString error;
    EXPECT_TRUE(sendTo(scp, &stored, &error)) << error.toStdString();
    EXPECT_EQ(stored, files_);
    EXPECT_EQ(scp.stores.load(), 2);
}

TEST_F(DicomSend, AStoreTheArchiveRefusesEndsTheSendInOneLine)
{
    StoreScp scp(peer_.port, 0xA700, 1);
    QStringList stored;
    QString error;
    EXPECT_FALSE(sendTo(scp, &stored, &error));
    EXPECT_EQ(stored, QStringList { files_.first() });
    EXPECT_EQ(error,
        QStringLiteral("127.0.0.1:%1 refused %2: status 0xa700 (out of resources)")
            .arg(peer_.port)
            .arg(files_.last()));
    EXPECT_FALSE(error.contains(QLatin1Char('\n')));
}

TEST_F(DicomSend, AWarningIsStillAStore)
{
    StoreScp scp(peer_.port, 0xB000, 0);
    QStringList stored;
    QString error;
    EXPECT_TRUE(sendTo(scp, &stored, &error)) << error.toStdString();
    EXPECT_EQ(stored, files_);
}

TEST_F(DicomSend, AFileThatIsNoDicomSendsNothing)
{
    QFile text(directory_.filePath(QStringLiteral("c.dcm")));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("not DICOM");
    text.close();
    QStringList stored;
    QString error;
    EXPECT_FALSE(sendDicomFiles(peer_, files_ + QStringList { text.fileName() }, &stored, &error));
    EXPECT_TRUE(stored.isEmpty());
    EXPECT_TRUE(error.startsWith(text.fileName() + QStringLiteral(" is no DICOM file")))
        << error.toStdString();
}
