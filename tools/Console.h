// korux's output: results and log lines on stdout, its own complaints on
// stderr. A log line's leading style tag ("[red]", "[yellow,bold]", ...) is
// turned into ANSI attributes when colouring, and kept verbatim otherwise.
#pragma once

#include <QString>

namespace korux {

class Console {
public:
    explicit Console(bool colour = false)
        : colour_(colour)
    {
    }

    bool colour() const { return colour_; }
    void setColour(bool colour) { colour_ = colour; }

    // A result line, as given.
    void out(const QString& text);
    // A log text of the plug-in, its style tag rendered or kept.
    void log(const QString& text);
    // One of korux's own messages, on stderr.
    void error(const QString& text);

    // Standard output could not be written (a full disk, a closed pipe):
    // said once on stderr (a closed pipe quietly asks korux to stop), and
    // nothing more is written there.
    bool outputFailed() const { return outputError_ != 0; }
    int outputError() const { return outputError_; }

private:
    void write(const QString& text);

    bool colour_;
    int outputError_ = 0;
};

// The text with its leading style tag turned into ANSI attributes (colour) or
// left as it is (no colour). Texts without a known tag are never touched.
QString styleLogText(const QString& text, bool colour);

} // namespace korux
