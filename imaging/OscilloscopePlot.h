// The oscilloscope of a shot as a picture: the dose rate the sensor's
// photodiode saw, sample after sample, over the threshold of 428 above
// which samples count, with the shot's energy and exposition written on it.
// Drawing text needs a QGuiApplication (korux runs one on Qt's minimal
// platform with fonts).
#pragma once

#include <QImage>
#include <QSize>
#include <QString>
#include <QVector>

namespace korux {

struct OscilloscopeFigures {
    QVector<int> samples;
    bool hasEnergy = false; // energy and exposition were in the description
    int energy = 0;
    int exposition = 0;
    QString title; // the unit and shot, for the top line
};

constexpr QSize kOscilloscopePlotSize(960, 480);

// The plot (kOscilloscopePlotSize, RGB); a null image when there are no
// samples.
QImage plotOscilloscope(const OscilloscopeFigures& figures);

// The figures of a shot from its description text; no samples when the
// text has no oscilloscope. False with the reason in error when the
// oscilloscope text is not one.
bool oscilloscopeFromDescription(const QString& description, OscilloscopeFigures* figures, QString* error);

} // namespace korux
