// korux and a real archive: an Orthanc server of its own on free loopback
// ports, with a temporary configuration and storage, that takes stores only
// from korux's AE title on 127.0.0.1. A session of two patients is sent to
// it, and its REST API must show exactly the patients, studies, series and
// instances korux meant. The server is stopped whatever the outcome.
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include "support/FreePort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tools/DicomSessionCheck.h"
#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

const QString kArchiveAe = QStringLiteral("KORUXPACS");

quint16 freePort()
{
    return korux_test::freeLoopbackPort();
}

// One HTTP/1.0 GET on 127.0.0.1: the body, or null when nothing answers.
QByteArray httpGet(quint16 port, const QString& path)
{
    const int connection = ::socket(AF_INET, SOCK_STREAM, 0);
    if (connection < 0)
        return QByteArray();
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    timeval timeout { 10, 0 };
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    QByteArray response;
    if (::connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const QByteArray request
            = "GET " + path.toLatin1() + " HTTP/1.0\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
        if (::send(connection, request.constData(), static_cast<size_t>(request.size()), 0)
            == request.size()) {
            char buffer[8192];
            ssize_t got = 0;
            while ((got = ::recv(connection, buffer, sizeof buffer, 0)) > 0)
                response.append(buffer, static_cast<int>(got));
        }
    }
    ::close(connection);
    const int body = response.indexOf("\r\n\r\n");
    if (!response.startsWith("HTTP/1.") || body < 0)
        return QByteArray();
    if (!response.startsWith("HTTP/1.0 200") && !response.startsWith("HTTP/1.1 200"))
        return QByteArray();
    return response.mid(body + 4);
}

class Pacs : public Korux {
protected:
    void SetUp() override
    {
        Korux::SetUp();
        const QString orthanc = QStandardPaths::findExecutable(QStringLiteral("Orthanc"),
            { QStringLiteral("/usr/sbin"), QStringLiteral("/usr/bin"), QStringLiteral("/usr/local/sbin") });
        ASSERT_FALSE(orthanc.isEmpty()) << "Orthanc is not installed (scripts/pacs-test installs it)";
        httpPort_ = freePort();
        dicomPort_ = freePort();
        ASSERT_NE(httpPort_, 0);
        ASSERT_NE(dicomPort_, 0);
        ASSERT_NE(httpPort_, dicomPort_);
        const QString storage = server_.filePath(QStringLiteral("storage"));
        ASSERT_TRUE(QDir().mkpath(storage));
        // Remote HTTP access off (loopback only); stores only from korux's
        // AE title on 127.0.0.1; no plug-ins.
        QJsonObject modalities;
        modalities.insert(QStringLiteral("korux"),
            QJsonArray { QStringLiteral("KORUX"), QStringLiteral("127.0.0.1"), 104 });
        QJsonObject config {
            { QStringLiteral("Name"), QStringLiteral("korux-test") },
            { QStringLiteral("StorageDirectory"), storage },
            { QStringLiteral("IndexDirectory"), storage },
            { QStringLiteral("HttpPort"), httpPort_ },
            { QStringLiteral("DicomPort"), dicomPort_ },
            { QStringLiteral("DicomAet"), kArchiveAe },
            { QStringLiteral("DicomCheckCalledAet"), true },
            { QStringLiteral("DicomAlwaysAllowStore"), false },
            { QStringLiteral("DicomAlwaysAllowEcho"), false },
            { QStringLiteral("DicomCheckModalityHost"), true },
            { QStringLiteral("DicomModalities"), modalities },
            { QStringLiteral("RemoteAccessAllowed"), false },
            { QStringLiteral("AuthenticationEnabled"), false },
            { QStringLiteral("Plugins"), QJsonArray() },
            { QStringLiteral("SaveJobs"), false },
            { QStringLiteral("HttpThreadsCount"), 2 },
            { QStringLiteral("DicomThreadsCount"), 1 },
        };
        const QString configPath = server_.filePath(QStringLiteral("orthanc.json"));
        QFile file(configPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QJsonDocument(config).toJson());
        file.close();
        orthanc_.setProcessChannelMode(QProcess::MergedChannels);
        orthanc_.setStandardOutputFile(server_.filePath(QStringLiteral("orthanc.log")));
        // Through setpriv, when there: the server is killed with the test
        // program even should that crash (the kernel's parent-death signal).
        const QString setpriv = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
        if (setpriv.isEmpty())
            orthanc_.start(orthanc, { configPath });
        else
            orthanc_.start(
                setpriv, { QStringLiteral("--pdeathsig"), QStringLiteral("KILL"), orthanc, configPath });
        ASSERT_TRUE(orthanc_.waitForStarted(10000)) << orthanc_.errorString().toStdString();
        // Up when its REST API answers.
        QElapsedTimer waited;
        waited.start();
        while (httpGet(httpPort_, QStringLiteral("/system")).isEmpty()) {
            ASSERT_EQ(orthanc_.state(), QProcess::Running) << serverLog();
            ASSERT_LT(waited.elapsed(), 30000) << "Orthanc's REST API did not answer: " << serverLog();
            QThread::msleep(100);
        }
    }

    // Always, also after a failed assertion: the server is stopped.
    void TearDown() override
    {
        if (orthanc_.state() == QProcess::NotRunning)
            return;
        orthanc_.terminate();
        if (!orthanc_.waitForFinished(15000)) {
            orthanc_.kill();
            orthanc_.waitForFinished(5000);
        }
    }

    std::string serverLog() const
    {
        QFile log(server_.filePath(QStringLiteral("orthanc.log")));
        return log.open(QIODevice::ReadOnly) ? log.readAll().right(2000).toStdString() : std::string();
    }

    QJsonValue rest(const QString& path)
    {
        const QByteArray body = httpGet(httpPort_, path);
        EXPECT_FALSE(body.isEmpty()) << path.toStdString();
        const QJsonDocument document = QJsonDocument::fromJson(body);
        return document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object());
    }

    QString peer() const { return QStringLiteral("127.0.0.1:%1").arg(dicomPort_); }

    // What the archive holds: patient ID to its studies, each study UID to
    // its series, each series UID to its number of instances.
    QMap<QString, QMap<QString, QMap<QString, int>>> archive()
    {
        QMap<QString, QMap<QString, QMap<QString, int>>> held;
        for (const QJsonValue& patient : rest(QStringLiteral("/patients")).toArray()) {
            const QJsonObject p = rest(QStringLiteral("/patients/") + patient.toString()).toObject();
            auto& studies = held[p.value(QStringLiteral("MainDicomTags"))
                                     .toObject()
                                     .value(QStringLiteral("PatientID"))
                                     .toString()];
            for (const QJsonValue& study : p.value(QStringLiteral("Studies")).toArray()) {
                const QJsonObject s = rest(QStringLiteral("/studies/") + study.toString()).toObject();
                auto& series = studies[s.value(QStringLiteral("MainDicomTags"))
                                           .toObject()
                                           .value(QStringLiteral("StudyInstanceUID"))
                                           .toString()];
                for (const QJsonValue& one : s.value(QStringLiteral("Series")).toArray()) {
                    const QJsonObject r = rest(QStringLiteral("/series/") + one.toString()).toObject();
                    series[r.value(QStringLiteral("MainDicomTags"))
                               .toObject()
                               .value(QStringLiteral("SeriesInstanceUID"))
                               .toString()]
                        = r.value(QStringLiteral("Instances")).toArray().size();
                }
            }
        }
        return held;
    }

    // What the files say the archive should hold, in the same form.
    static QMap<QString, QMap<QString, QMap<QString, int>>> meant(const QStringList& files)
    {
        QMap<QString, QMap<QString, QMap<QString, int>>> meant;
        for (const QString& file : files)
            ++meant[dicomValue(file, DCM_PatientID)][dicomValue(file, DCM_StudyInstanceUID)]
                   [dicomValue(file, DCM_SeriesInstanceUID)];
        return meant;
    }

    QTemporaryDir server_;
    QProcess orthanc_;
    quint16 httpPort_ = 0;
    quint16 dicomPort_ = 0;
};

QStringList sentFiles(const QString& out)
{
    QStringList files;
    static const QRegularExpression sent(
        QStringLiteral("^sent (.+) to "), QRegularExpression::MultilineOption);
    auto matches = sent.globalMatch(out);
    while (matches.hasNext())
        files << matches.next().captured(1);
    return files;
}

} // namespace

TEST_F(Pacs, ASessionOfTwoPatientsIsFiledAsKoruxMeantIt)
{
    const QString send = QStringLiteral("--send %1 --called-ae %2").arg(peer(), kArchiveAe);
    writeFile(QStringLiteral("session.korux"),
        QStringLiteral(
            "acquire --out shots --dicom-presentation --patient-id PAT-A --patient-name Able^Ann "
            "--count 2 %1\n"
            "acquire --out shots --dicom-presentation --patient-id PAT-B --patient-name Baker^Bob %1\n")
            .arg(send)
            .toUtf8());
    const KoruxRun run = koruxOn({ QStringLiteral("run"), path(QStringLiteral("session.korux")) });
    ASSERT_EQ(run.exitCode, 0) << run.out.toStdString() << run.err.toStdString() << serverLog();
    QStringList files;
    for (const QString& file : sentFiles(run.out))
        files << path(file);
    ASSERT_EQ(files.size(), 6) << run.out.toStdString();

    const auto held = archive();
    EXPECT_EQ(held, meant(files));
    ASSERT_EQ(held.keys(), (QStringList { QStringLiteral("PAT-A"), QStringLiteral("PAT-B") }));
    EXPECT_EQ(held.value(QStringLiteral("PAT-A")).size(), 1);
    EXPECT_EQ(held.value(QStringLiteral("PAT-B")).size(), 1);
    for (const auto& studies : held)
        for (const auto& series : studies)
            EXPECT_EQ(series.size(), 2) << "For Processing and For Presentation";
    EXPECT_EQ(rest(QStringLiteral("/instances")).toArray().size(), 6);

    const QStringList entityErrors = dcentvfyErrors(files);
    EXPECT_TRUE(entityErrors.isEmpty()) << entityErrors.join('\n').toStdString();

    // korux send of the same files stores nothing new: same instances.
    const KoruxRun again = korux(QStringList { QStringLiteral("send"), QStringLiteral("--peer"), peer(),
                                     QStringLiteral("--called-ae"), kArchiveAe }
        + files);
    ASSERT_EQ(again.exitCode, 0) << again.err.toStdString();
    EXPECT_EQ(sentFiles(again.out).size(), 6);
    EXPECT_EQ(archive(), held);
}

TEST_F(Pacs, ARefusedAssociationIsOneLineAndNothingStored)
{
    const KoruxRun shot = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom") });
    ASSERT_EQ(shot.exitCode, 0) << shot.err.toStdString();
    const QString file = QDir(path(QString())).entryList({ QStringLiteral("*.dcm") }).value(0);
    ASSERT_FALSE(file.isEmpty());

    for (const QStringList& titles :
        { QStringList { QStringLiteral("--called-ae"), QStringLiteral("ELSEWHERE") },
            QStringList { QStringLiteral("--called-ae"), kArchiveAe, QStringLiteral("--calling-ae"),
                QStringLiteral("STRANGER") } }) {
        const KoruxRun run = korux(QStringList { QStringLiteral("send"), QStringLiteral("--peer"), peer() }
            + titles + QStringList { file });
        EXPECT_EQ(run.exitCode, 1) << titles.join(' ').toStdString();
        EXPECT_EQ(run.err.count(QLatin1Char('\n')), 1) << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(QStringLiteral("refused the association"))) << run.err.toStdString();
    }
    EXPECT_TRUE(rest(QStringLiteral("/instances")).toArray().isEmpty());

    // acquire --send to it: the shot's files are kept, the send failure said.
    const KoruxRun refused = koruxOn({ QStringLiteral("acquire"), QStringLiteral("--dicom"),
        QStringLiteral("--out"), QStringLiteral("refused"), QStringLiteral("--send"), peer(),
        QStringLiteral("--called-ae"), QStringLiteral("ELSEWHERE") });
    EXPECT_NE(refused.exitCode, 0);
    EXPECT_TRUE(refused.err.contains(QStringLiteral("refused the association"))) << refused.err.toStdString();
    EXPECT_EQ(QDir(path(QStringLiteral("refused"))).entryList({ QStringLiteral("*.dcm") }).size(), 1);
}
