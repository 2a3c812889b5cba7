#include "imaging/OscilloscopePlot.h"

#include <QFont>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>

#include <algorithm>
#include <cmath>

#include "imaging/ShotDescription.h"

namespace korux {

namespace {

// A tick step of 1, 2 or 5 times a power of ten that gives at most about
// count ticks over span.
double tickStep(double span, int count)
{
    const double raw = std::max(span, 1.0) / count;
    const double power = std::pow(10.0, std::floor(std::log10(raw)));
    for (double factor : { 1.0, 2.0, 5.0, 10.0 })
        if (factor * power >= raw)
            return std::max(1.0, factor * power);
    return std::max(1.0, 10 * power);
}

} // namespace

QImage plotOscilloscope(const OscilloscopeFigures& figures)
{
    const QVector<int>& samples = figures.samples;
    if (samples.isEmpty())
        return QImage();
    QImage image(kOscilloscopePlotSize, QImage::Format_RGB32);
    image.fill(Qt::white);

    // Valid samples lie between 0x100 and 0x3FF; the full read-out may give
    // others, and then the scale follows them.
    const int lowest = *std::min_element(samples.begin(), samples.end());
    const int highest = *std::max_element(samples.begin(), samples.end());
    const double yMin = std::min(256, lowest / 128 * 128);
    const double yMax = std::max(1024, (highest + 127) / 128 * 128);
    const double xMax = std::max(1, samples.size() - 1);

    const QRectF area(84, 60, image.width() - 84 - 28, image.height() - 60 - 60);
    auto px = [&](double x) { return area.left() + x / xMax * area.width(); };
    auto py = [&](double y) { return area.bottom() - (y - yMin) / (yMax - yMin) * area.height(); };

    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QFont font = painter.font();
    font.setPixelSize(14);
    painter.setFont(font);
    const QFontMetrics metrics(font);

    // Grid and tick labels.
    painter.setPen(QPen(QColor(225, 225, 225), 1));
    const double xStep = tickStep(xMax, 10);
    for (double x = 0; x <= xMax + 1e-9; x += xStep)
        painter.drawLine(QPointF(px(x), area.top()), QPointF(px(x), area.bottom()));
    for (double y = yMin; y <= yMax + 1e-9; y += 128)
        painter.drawLine(QPointF(area.left(), py(y)), QPointF(area.right(), py(y)));
    painter.setPen(Qt::black);
    for (double x = 0; x <= xMax + 1e-9; x += xStep) {
        const QString label = QString::number(x, 'f', 0);
        painter.drawText(QPointF(px(x) - metrics.horizontalAdvance(label) / 2.0, area.bottom() + 20), label);
    }
    for (double y = yMin; y <= yMax + 1e-9; y += 128) {
        const QString label = QString::number(y, 'f', 0);
        painter.drawText(QPointF(area.left() - 8 - metrics.horizontalAdvance(label), py(y) + 5), label);
    }
    painter.drawText(QPointF(area.center().x() - 60, image.height() - 14), QStringLiteral("time (samples)"));
    painter.save();
    painter.translate(22, area.center().y() + 60);
    painter.rotate(-90);
    painter.drawText(QPointF(0, 0), QStringLiteral("dose rate (photodiode)"));
    painter.restore();

    // What counts for the energy: the samples above the threshold.
    const double threshold = py(kOscilloscopeThreshold);
    QPolygonF above;
    above << QPointF(px(0), threshold);
    for (int i = 0; i < samples.size(); ++i)
        above << QPointF(px(i), std::min(threshold, py(samples[i])));
    above << QPointF(px(samples.size() - 1), threshold);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(170, 205, 240));
    painter.drawPolygon(above);

    // The curve.
    QPolygonF curve;
    for (int i = 0; i < samples.size(); ++i)
        curve << QPointF(px(i), py(samples[i]));
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(QColor(20, 60, 160), samples.size() > 2000 ? 1.0 : 2.0));
    if (curve.size() == 1)
        painter.drawEllipse(curve.first(), 2, 2);
    else
        painter.drawPolyline(curve);

    // The threshold.
    painter.setPen(QPen(QColor(200, 30, 30), 1.5, Qt::DashLine));
    painter.drawLine(QPointF(area.left(), threshold), QPointF(area.right(), threshold));
    painter.setPen(QColor(200, 30, 30));
    painter.drawText(QPointF(area.right() - 34, threshold - 6), QString::number(kOscilloscopeThreshold));

    painter.setPen(Qt::black);
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(area);

    // Heading: the shot, and its figures.
    QFont bold = font;
    bold.setBold(true);
    bold.setPixelSize(16);
    painter.setFont(bold);
    const QString title = figures.title.isEmpty() ? QStringLiteral("Oscilloscope") : figures.title;
    painter.drawText(QPointF(area.left(), 26), title);
    painter.setFont(font);
    QString numbers = QStringLiteral("%1 samples").arg(samples.size());
    if (figures.hasEnergy)
        numbers = QStringLiteral("Energy %1    Exposition %2 (samples above %3)    %4")
                      .arg(figures.energy)
                      .arg(figures.exposition)
                      .arg(kOscilloscopeThreshold)
                      .arg(numbers);
    painter.drawText(QPointF(area.left(), 48), numbers);
    painter.end();
    return image;
}

bool oscilloscopeFromDescription(const QString& description, OscilloscopeFigures* figures, QString* error)
{
    const DescriptionSection acquisition = parseDescription(description).value(QStringLiteral("ACQUISITION"));
    if (!parseOscilloscope(acquisition.value(QStringLiteral("Oscillo")), &figures->samples, error))
        return false;
    bool energyOk = false, expositionOk = false;
    figures->energy = acquisition.value(QStringLiteral("Energy")).toInt(&energyOk);
    figures->exposition = acquisition.value(QStringLiteral("Exposition")).toInt(&expositionOk);
    figures->hasEnergy = energyOk && expositionOk;
    return true;
}

} // namespace korux
