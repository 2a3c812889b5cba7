#include "tools/Options.h"

#include <QRegularExpression>

#include <cmath>

namespace korux {

namespace {

// A hundred times the real waits is already a slow-motion sensor.
constexpr double kLargestTimeScale = 100;

const QStringList kValueOptions = {
    QStringLiteral("--bridge"),
    QStringLiteral("--scenario"),
    QStringLiteral("--plugin"),
    QStringLiteral("--dir"),
    QStringLiteral("--color"),
    QStringLiteral("--time-scale"),
    QStringLiteral("--serial"),
    QStringLiteral("--transcript"),
    QStringLiteral("--record"),
};

// A negative number ("-1") is an argument, not an option.
bool looksLikeOption(const QString& word)
{
    static const QRegularExpression number(QStringLiteral("^-[0-9.]"));
    return word.startsWith('-') && word.size() > 1 && !number.match(word).hasMatch();
}

bool applyValue(const QString& name, const QString& value, Options* options, QString* error)
{
    if (value.isEmpty()) {
        *error = QStringLiteral("option %1 needs a non-empty value").arg(name);
        return false;
    }
    if (name == QLatin1String("--bridge")) {
        options->bridge = value;
    } else if (name == QLatin1String("--scenario")) {
        options->scenario = value;
    } else if (name == QLatin1String("--plugin")) {
        options->plugin = value;
    } else if (name == QLatin1String("--dir")) {
        options->directory = value;
    } else if (name == QLatin1String("--serial")) {
        // Board serials are hexadecimal, read from flash in capitals.
        options->serial = value.toUpper();
    } else if (name == QLatin1String("--transcript")) {
        options->transcript = value;
    } else if (name == QLatin1String("--record")) {
        options->record = value;
    } else if (name == QLatin1String("--color")) {
        if (value == QLatin1String("auto"))
            options->color = ColorMode::Auto;
        else if (value == QLatin1String("always"))
            options->color = ColorMode::Always;
        else if (value == QLatin1String("never"))
            options->color = ColorMode::Never;
        else {
            *error = QStringLiteral("--color takes auto, always or never, not \"%1\"").arg(value);
            return false;
        }
    } else if (name == QLatin1String("--time-scale")) {
        bool ok = false;
        const double scale = value.toDouble(&ok);
        // nan and inf are numbers to toDouble; a wait stretched by them never ends.
        if (!ok || !std::isfinite(scale) || scale < 0 || scale > kLargestTimeScale) {
            *error = QStringLiteral("--time-scale takes a number from 0 to %1, not \"%2\"")
                         .arg(kLargestTimeScale)
                         .arg(value);
            return false;
        }
        options->timeScale = scale;
        options->timeScaleSet = true;
    }
    return true;
}

} // namespace

bool parseOptions(const QStringList& arguments, Options* options, QString* error)
{
    bool optionsEnded = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& word = arguments.at(i);
        if (optionsEnded || !looksLikeOption(word)) {
            if (options->command.isEmpty())
                options->command = word;
            else
                options->arguments << word;
            continue;
        }
        if (word == QLatin1String("--")) {
            optionsEnded = true;
        } else if (word == QLatin1String("-v") || word == QLatin1String("--verbose")) {
            options->verbose = true;
            options->quiet = false;
        } else if (word == QLatin1String("-q") || word == QLatin1String("--quiet")) {
            options->quiet = true;
            options->verbose = false;
        } else if (word == QLatin1String("-h") || word == QLatin1String("--help")) {
            options->help = true;
        } else if (word == QLatin1String("--json")) {
            options->json = true;
        } else if (word == QLatin1String("--version")) {
            options->version = true;
        } else if (word == QLatin1String("--record-mask-serials")) {
            options->recordMaskSerials = true;
        } else if (word == QLatin1String("--overwrite")) {
            // Before the command, korux's own (the transcript); after it,
            // the command's alone.
            if (options->command.isEmpty())
                options->overwrite = true;
            else
                options->arguments << word;
        } else {
            const int equals = word.indexOf('=');
            const QString name = equals < 0 ? word : word.left(equals);
            if (!kValueOptions.contains(name)) {
                // After the command word, the command's own options.
                if (!options->command.isEmpty()) {
                    options->arguments << word;
                    continue;
                }
                *error = QStringLiteral("unknown option \"%1\"").arg(word);
                return false;
            }
            QString value;
            if (equals >= 0) {
                value = word.mid(equals + 1);
            } else if (i + 1 < arguments.size()) {
                value = arguments.at(++i);
            } else {
                *error = QStringLiteral("option %1 needs a value").arg(name);
                return false;
            }
            if (!applyValue(name, value, options, error))
                return false;
        }
    }
    return true;
}

} // namespace korux
