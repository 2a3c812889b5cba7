// korux's output: results and log lines on stdout, its own complaints on
// stderr. A log line's leading style tag ("[red]", "[yellow,bold]", ...) is
// turned into ANSI attributes when colouring, and dropped otherwise.
#pragma once

#include <QJsonObject>
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

    // A result line, as given; nothing in JSON mode.
    void out(const QString& text);
    // In JSON mode (--json) standard output carries only these: one
    // document a line. Nothing outside JSON mode.
    void json(const QJsonObject& document);
    bool jsonMode() const { return json_; }
    void setJsonMode(bool json) { json_ = json; }
    // A line that replaces itself (a countdown) on a terminal; elsewhere
    // nothing: the caller prints its first state with out().
    void progress(const QString& text);
    bool terminal() const { return terminal_; }
    void setTerminal(bool terminal) { terminal_ = terminal; }
    // A log text of the plug-in, its style tag rendered or kept.
    void log(const QString& text);
    // One of korux's own messages, on stderr.
    void error(const QString& text);

    // Standard output could not be written (a full disk, a closed pipe):
    // said once on stderr (a closed pipe quietly), and nothing more is
    // written there.
    bool outputFailed() const { return outputError_ != 0; }
    int outputError() const { return outputError_; }

private:
    void write(const QString& text);

    void endProgress();

    bool colour_;
    bool terminal_ = false;
    bool json_ = false;
    bool progressShown_ = false;
    int outputError_ = 0;
};

// The text with its leading style tag turned into ANSI attributes (colour) or
// removed (no colour). Texts without a known tag are never touched.
QString styleLogText(const QString& text, bool colour);

} // namespace korux
