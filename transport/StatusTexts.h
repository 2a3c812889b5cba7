// Texts of the D2XX and LibFT4222 status codes, as every bridge failure is
// logged.
#pragma once

#include <QString>

#include <cstdint>

QString ftStatusText(uint32_t status);
QString ft4222StatusText(int64_t status);
