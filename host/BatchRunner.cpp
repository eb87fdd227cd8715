#include "host/BatchRunner.h"

#include "ZImage/ZException.h"
#include "host/PluginHost.h"
#include "host/SkyrinseApplication.h"
#include "plugin/ZIPluginLibrary.h"
#include "plugin/ZIPluginOne2One.h"
#include "runtime/nrt.h"

#include <QDomDocument>
#include <QElapsedTimer>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

const QString kProcessId = QStringLiteral("6A2F91C4-38DE-4B07-A15C-7E04D3C2B81F");
const QString kStrengthKey = QStringLiteral("hazeRemove");
constexpr int kDefaultStrength = 60;

bool parseBounded(const QString& text, int low, int high, int& value) {
    bool ok = false;
    const int parsed = text.trimmed().toInt(&ok, 10);
    if (!ok || parsed < low || parsed > high) return false;
    value = parsed;
    return true;
}

void report(const QString& line) {
    std::fprintf(stderr, "%s\n", qPrintable(line));
    std::fflush(stderr);
}

// The settings record of one run, released by the plug-in that made it.
class RunSettings {
public:
    RunSettings(ZIPluginOne2One* process, int strength) : m_process(process) {
        QDomDocument document(process->name());
        QDomElement element = document.createElement(process->name());
        element.setAttribute(kStrengthKey, strength);
        m_settings = process->loadSettings(element);
    }
    ~RunSettings() { m_process->freeSettings(m_settings); }
    RunSettings(const RunSettings&) = delete;
    RunSettings& operator=(const RunSettings&) = delete;
    HazeSettings* get() const { return m_settings; }

private:
    ZIPluginOne2One* m_process;
    HazeSettings* m_settings = nullptr;
};

// The solver prints its statistics on standard output; the command shows
// them only when asked to, so without --verbose that stream goes to
// /dev/null while an image is processed.
class QuietStdout {
public:
    explicit QuietStdout(bool quiet) {
        if (!quiet) return;
        std::fflush(stdout);
        const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (sink < 0) return;
        m_saved = ::dup(STDOUT_FILENO);
        if (m_saved >= 0) ::dup2(sink, STDOUT_FILENO);
        ::close(sink);
    }
    ~QuietStdout() {
        if (m_saved < 0) return;
        std::fflush(stdout);
        ::dup2(m_saved, STDOUT_FILENO);
        ::close(m_saved);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int m_saved = -1;
};

} // namespace

bool parseStrength(bool given, const QString& text, int& strength, QString& error) {
    if (!given) {
        strength = -1;
        return true;
    }
    if (parseBounded(text, 0, 100, strength)) return true;
    error = QCoreApplication::translate("main",
                                        "--strength takes a whole number from 0 to 100, not \"%1\"")
                .arg(text);
    return false;
}

bool parseThreads(bool given, const QString& text, int& threads, QString& error) {
    if (!given) {
        threads = 0;
        return true;
    }
    if (parseBounded(text, 1, 1024, threads)) return true;
    error = QCoreApplication::translate("main",
                                        "--threads takes a whole number from 1 to 1024, not \"%1\"")
                .arg(text);
    return false;
}

int runBatch(SkyrinseApplication& app, PluginHost& host, const QStringList& files,
             const BatchOptions& options) {
    const QList<ZIPluginProcess*> processes = host.library()->plugins(true);
    auto* process =
        processes.isEmpty() ? nullptr : dynamic_cast<ZIPluginOne2One*>(processes.last());
    if (!process) {
        report(
            QCoreApplication::translate("main", "skyrinse: the plug-in offers no image process"));
        return 3;
    }

    int strength = options.strength;
    if (strength < 0)
        strength = app.hasValue(kProcessId, kStrengthKey)
                       ? app.value(kProcessId, kStrengthKey, kDefaultStrength).toInt()
                       : kDefaultStrength;
    if (options.verbose) {
        report(QCoreApplication::translate("main", "plug-in %1 %2 from %3")
                   .arg(process->name(), process->version(), host.fileName()));
        report(QCoreApplication::translate("main", "strength %1%, %2 thread(s)")
                   .arg(strength)
                   .arg(app.threadFactorA() * app.threadFactorB()));
        char why[256];
        const int granted =
            nrt_explain_threads(app.threadFactorA() * app.threadFactorB(), why, sizeof why);
        report(QCoreApplication::translate("main", "solver granted %1 thread(s): %2")
                   .arg(granted)
                   .arg(QString::fromUtf8(why)));
    }

    int failures = 0;
    const int total = static_cast<int>(files.size());
    for (int i = 0; i < total; ++i) {
        const QString& file = files.at(i);
        const QString counter =
            total > 1 ? QStringLiteral("[%1/%2] ").arg(i + 1).arg(total) : QString();
        QElapsedTimer timer;
        timer.start();
        try {
            // A fresh record per file: a cached map belongs to one picture.
            const RunSettings settings(process, strength);
            QString output;
            {
                const QuietStdout quiet(!options.verbose);
                process->processImage(file, settings.get(), output);
            }
            report(QCoreApplication::translate("main", "%1%2 -> %3 (%4 s)")
                       .arg(counter, file, output)
                       .arg(timer.elapsed() / 1000.0, 0, 'f', 2));
        } catch (const ZException& e) {
            ++failures;
            report(QCoreApplication::translate("main", "%1%2: failed: %3\n    at %4")
                       .arg(counter, file, QString::fromStdString(e.what()), *e.location()));
        } catch (const std::exception& e) {
            ++failures;
            report(QCoreApplication::translate("main", "%1%2: failed: %3")
                       .arg(counter, file, QString::fromStdString(e.what())));
        }
        app.releaseImages();
    }
    if (total > 1)
        report(QCoreApplication::translate("main", "%1 of %2 file(s) written")
                   .arg(total - failures)
                   .arg(total));
    return failures == 0 ? 0 : 1;
}
