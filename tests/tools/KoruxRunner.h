// Running korux as a user runs it, in a clean environment and a temporary
// directory of the test's own.
#pragma once

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QVector>

#include <ostream>

#include <gtest/gtest.h>

// Output texts in failure messages.
inline std::ostream& operator<<(std::ostream& os, const QString& text)
{
    return os << text.toStdString();
}

namespace korux_test {

// The "ShootCounter" values of the counter reports in out, in order.
inline QVector<uint> counterValues(const QString& out)
{
    QVector<uint> values;
    static const QRegularExpression member(QStringLiteral("\"ShootCounter\": (\\d+)"));
    auto matches = member.globalMatch(out);
    while (matches.hasNext())
        values << matches.next().captured(1).toUInt();
    return values;
}

// True when every text occurs in out, each after the one before it.
inline bool inOrder(const QString& out, const QStringList& texts)
{
    int from = 0;
    for (const QString& text : texts) {
        const int at = out.indexOf(text, from);
        if (at < 0)
            return false;
        from = at + text.size();
    }
    return true;
}

struct KoruxRun {
    int exitCode = -1;
    QString out;
    QString err;
};

inline QString buildDirectory()
{
    const QString fromEnvironment = qEnvironmentVariable("KORUX_BUILD_DIR");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    return QDir::cleanPath(QCoreApplication::applicationDirPath() + QStringLiteral("/.."));
}

inline QString koruxPath()
{
    return buildDirectory() + QStringLiteral("/bin/korux");
}

class Korux : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(QFile::exists(koruxPath())) << koruxPath().toStdString(); }

    // Runs korux in a clean environment: no scenario, no library path that
    // could put a bridge in front of the one the test chooses.
    KoruxRun korux(const QStringList& arguments) { return koruxAt(koruxPath(), arguments); }

    // Starts korux in process, in the clean environment and the test's
    // directory, without waiting for it.
    void startKorux(QProcess& process, const QStringList& arguments, const QString& program = koruxPath())
    {
        process.setProcessEnvironment(koruxEnvironment());
        process.setWorkingDirectory(directory_.path());
        process.start(program, arguments);
    }

    // The environment korux runs in, for tests that start it through a
    // shell or a terminal.
    QProcessEnvironment koruxEnvironment() const
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("KORUX_SCENARIO"));
        // The default machine at instant timing, as a scenario without a
        // "timing" is: the tests need no device delays.
        environment.insert(QStringLiteral("KORUX_TIMING"), defaultMachineTiming_);
        environment.remove(QStringLiteral("LD_LIBRARY_PATH"));
        environment.remove(QStringLiteral("LD_PRELOAD"));
        // The user's directories are the test's own: the default machine's
        // flash image lives in the state directory, the family directory's
        // default in the data directory.
        environment.insert(QStringLiteral("HOME"), directory_.filePath(QStringLiteral("home")));
        environment.insert(
            QStringLiteral("XDG_STATE_HOME"), directory_.filePath(QStringLiteral("home/state")));
        environment.insert(QStringLiteral("XDG_DATA_HOME"), directory_.filePath(QStringLiteral("home/data")));
        return environment;
    }

    // Runs the korux binary at program, in the test's directory.
    KoruxRun koruxAt(const QString& program, const QStringList& arguments)
    {
        QProcess process;
        startKorux(process, arguments, program);
        KoruxRun run;
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
            ADD_FAILURE() << "korux did not finish";
            return run;
        }
        run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        run.out = QString::fromUtf8(process.readAllStandardOutput());
        run.err = QString::fromUtf8(process.readAllStandardError());
        return run;
    }

    QString writeFile(const QString& name, const QByteArray& content)
    {
        const QString path = directory_.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return path;
    }

    // korux on the virtual bridge (named: no word on the bridge chosen) with
    // the test's family directory and no waits, on the machine the scenario text describes (default: one
    // sensor).
    KoruxRun koruxOn(const QStringList& arguments, const QString& scenario = QString())
    {
        return korux(argumentsOn(arguments, scenario));
    }

    // korux's arguments for koruxOn (the scenario written to scenario.json).
    QStringList argumentsOn(const QStringList& arguments, const QString& scenario = QString())
    {
        QStringList words { QStringLiteral("--bridge"), QStringLiteral("virtual"), QStringLiteral("--dir"),
            familyDirectory(), QStringLiteral("--time-scale"), QStringLiteral("0") };
        if (!scenario.isEmpty())
            words << QStringLiteral("--scenario") << writeFile(QStringLiteral("scenario.json"), scenario.toUtf8());
        return words + arguments;
    }

    QString path(const QString& name) const { return directory_.filePath(name); }

    // The transcript's lines as objects; a line that is not one fails.
    QVector<QJsonObject> readTranscript(const QString& name) const
    {
        QVector<QJsonObject> lines;
        QFile file(directory_.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
        while (!file.atEnd()) {
            const QByteArray line = file.readLine();
            const QJsonDocument document = QJsonDocument::fromJson(line);
            EXPECT_TRUE(document.isObject()) << line.toStdString();
            lines.append(document.object());
        }
        return lines;
    }

    QString familyDirectory() const { return directory_.filePath(QStringLiteral("family")); }

    QTemporaryDir directory_;
    // KORUX_TIMING for korux: the default machine's timing.
    QString defaultMachineTiming_ = QStringLiteral("instant");
};

} // namespace korux_test


