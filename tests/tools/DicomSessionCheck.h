// How a set of DICOM files fits together (patients, studies, series,
// instances), read back with DCMTK, and the verdicts of dicom3tools'
// dcentvfy (the files as one set) and dciodvfy (each file).
#pragma once

#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QStandardPaths>
#include <QString>
#include <QStringList>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <gtest/gtest.h>

namespace korux_test {

struct StudyLayout {
    QString patientId;
    QMap<QString, QStringList> series; // series UID: instance numbers
    QSet<QString> intents; // Presentation Intent Type of each series
    QSet<QString> seriesNumbers;
};

struct SessionLayout {
    QString error; // a file that could not be read
    QMap<QString, int> patients; // patient ID: number of studies
    QMap<QString, StudyLayout> studies; // by study UID

    int instancesOf(const QString& patientId) const
    {
        int count = 0;
        for (const StudyLayout& study : studies)
            if (study.patientId == patientId)
                for (const QStringList& instances : study.series)
                    count += instances.size();
        return count;
    }
};

inline QString dicomValue(DcmDataset* data, const DcmTagKey& tag)
{
    OFString value;
    data->findAndGetOFStringArray(tag, value);
    return QString::fromUtf8(value.c_str());
}

inline QString dicomValue(const QString& file, const DcmTagKey& tag)
{
    DcmFileFormat format;
    if (format.loadFile(file.toStdString().c_str()).bad())
        return QStringLiteral("(unreadable)");
    return dicomValue(format.getDataset(), tag);
}

inline SessionLayout readSession(const QStringList& files)
{
    SessionLayout layout;
    for (const QString& file : files) {
        DcmFileFormat format;
        if (format.loadFile(file.toStdString().c_str()).bad()) {
            layout.error = file + QStringLiteral(" cannot be read");
            return layout;
        }
        DcmDataset* data = format.getDataset();
        const QString studyUid = dicomValue(data, DCM_StudyInstanceUID);
        StudyLayout& study = layout.studies[studyUid];
        const QString patient = dicomValue(data, DCM_PatientID);
        if (study.patientId.isEmpty()) {
            study.patientId = patient;
            ++layout.patients[patient];
        } else if (study.patientId != patient) {
            layout.error
                = QStringLiteral("study %1 holds patients %2 and %3").arg(studyUid, study.patientId, patient);
            return layout;
        }
        study.series[dicomValue(data, DCM_SeriesInstanceUID)] << dicomValue(data, DCM_InstanceNumber);
        study.intents.insert(dicomValue(data, DCM_PresentationIntentType));
        study.seriesNumbers.insert(dicomValue(data, DCM_SeriesNumber));
    }
    return layout;
}

// The "Error" lines of a dicom3tools checker's output; a missing tool fails.
inline QStringList dicom3toolsErrors(const char* name, const QStringList& arguments)
{
    const QString tool = QStandardPaths::findExecutable(QString::fromLatin1(name));
    if (tool.isEmpty()) {
        ADD_FAILURE() << name << " is not installed (scripts/test installs dicom3tools)";
        return {};
    }
    QProcess process;
    process.start(tool, arguments);
    EXPECT_TRUE(process.waitForFinished(120000));
    const QString output
        = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    return output.split(QLatin1Char('\n')).filter(QRegularExpression(QStringLiteral("^Error")));
}

inline QStringList dcentvfyErrors(const QStringList& files)
{
    return dicom3toolsErrors("dcentvfy", files);
}

inline QStringList dciodvfyErrors(const QString& file)
{
    return dicom3toolsErrors("dciodvfy", { file });
}

} // namespace korux_test
