// Failure messages show Qt strings as text.
#pragma once

#include <QString>

#include <ostream>

inline void PrintTo(const QString& text, std::ostream* os)
{
    *os << '"' << text.toStdString() << '"';
}
