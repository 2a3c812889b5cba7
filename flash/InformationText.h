// The sensor information text (the PRD file): ISO 8859-1 lines in [sections]
// of key=value pairs.
#pragma once

#include <QString>

#include "plugin/JsonReport.h"

namespace korux {

// Parses the text into section -> key -> value (each value a string). The
// line ends of text are normalised in place. Key lines before the first
// header belong to the first named section; a header without key lines
// leaves no section; nothing is trimmed.
ReportMap parseInformationText(QString& text);

}  // namespace korux
