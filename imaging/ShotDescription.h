// The acquisition description that comes with every image ("[SECTION]"
// lines, then "key=value" lines), read back into its sections, and the
// oscilloscope samples it carries.
#pragma once

#include <QMap>
#include <QString>
#include <QVector>

namespace korux {

using DescriptionSection = QMap<QString, QString>;
using Description = QMap<QString, DescriptionSection>;

// Lines outside a section and lines without "=" are skipped.
Description parseDescription(const QString& text);

// The dose-rate samples of an "Oscillo" text: four hexadecimal digits each.
// False with the reason in error when the text is not made of them.
bool parseOscilloscope(const QString& text, QVector<int>* samples, QString* error);

// The photodiode level above which a sample counts for the exposition and
// the energy.
constexpr int kOscilloscopeThreshold = 428;

} // namespace korux
