#include "host/BatchRunner.h"

#include "ZImage/ZException.h"
#include "ZImage/ZFileName.h"
#include "host/HostServices.h"
#include "host/PluginHost.h"
#include "imagefile/Ifl.h"
#include "plugin/ZIPluginLibrary.h"
#include "plugin/ZIPluginOne2One.h"
#include "runtime/nrt.h"

#include <QDir>
#include <QDomDocument>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QMap>
#include <QSet>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

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
        element.setAttribute(HostServices::kStrengthKey, strength);
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

// The terminal's standard error, kept while library chatter is diverted.
int userStderr = STDERR_FILENO;
bool verboseMessages = false;

// Qt's messages: debug lines only with --verbose, the rest always, straight
// to the terminal even while standard error is diverted.
void messageHandler(QtMsgType type, const QMessageLogContext&, const QString& text) {
    if (type == QtDebugMsg && !verboseMessages) return;
    const QByteArray line = text.toLocal8Bit() + '\n';
    [[maybe_unused]] const ssize_t written = ::write(userStderr, line.constData(), line.size());
}

// Codecs and libraries (libpng, libtiff, OpenImageIO, OpenEXR) print warnings
// of their own on standard error. While an image is processed that stream
// goes to memory, and reaches the terminal afterwards only with --verbose;
// what matters to the user travels in the exception or the warnings.
class DivertedStderr {
public:
    explicit DivertedStderr(bool replay) : m_replay(replay) {
        std::fflush(stderr);
        m_memory = ::memfd_create("skyrinse-stderr", MFD_CLOEXEC);
        if (m_memory < 0) return;
        m_saved = ::dup(STDERR_FILENO);
        if (m_saved >= 0) ::dup2(m_memory, STDERR_FILENO);
    }
    ~DivertedStderr() {
        if (m_saved >= 0) {
            std::fflush(stderr);
            ::dup2(m_saved, STDERR_FILENO);
            ::close(m_saved);
            if (m_replay) {
                char buffer[4096];
                ::lseek(m_memory, 0, SEEK_SET);
                for (ssize_t n; (n = ::read(m_memory, buffer, sizeof buffer)) > 0;)
                    if (::write(STDERR_FILENO, buffer, static_cast<std::size_t>(n)) != n) break;
            }
        }
        if (m_memory >= 0) ::close(m_memory);
    }
    DivertedStderr(const DivertedStderr&) = delete;
    DivertedStderr& operator=(const DivertedStderr&) = delete;

private:
    bool m_replay;
    int m_memory = -1;
    int m_saved = -1;
};

// Ctrl-C, a kill, a lost terminal or a file-size limit during a save: the
// temporary file goes, then the process ends as the signal would have ended
// it, so the shell sees the usual status.
extern "C" void endOnSignal(int signal) {
    iflRemoveTemporaryFiles();
    ::signal(signal, SIG_DFL);
    ::raise(signal);
}

void installSignalCleanup() {
    struct sigaction action {};
    action.sa_handler = endOnSignal;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGXFSZ})
        ::sigaction(signal, &action, nullptr);
}

bool existsOnDisk(const QString& path) {
    struct stat st {};
    return ::lstat(ZFileName::encode(path).constData(), &st) == 0;
}

// The absolute form of a path by string operations only: QFileInfo makes a
// relative path absolute through the system's encoding, which loses bytes
// that are not UTF-8.
QString absolute(const QString& path) {
    if (path.startsWith(QLatin1Char('/'))) return QDir::cleanPath(path);
    char* here = ::getcwd(nullptr, 0);
    const QString folder = here ? ZFileName::decode(QByteArray(here)) : QDir::currentPath();
    std::free(here);
    return QDir::cleanPath(folder + QLatin1Char('/') + path);
}

} // namespace

int runBatch(HostServices& app, PluginHost& host, const QStringList& files,
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
        strength = app.value(HostServices::kHazeProcessId, HostServices::kStrengthKey,
                             HostServices::kDefaultStrength)
                       .toInt();
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

    installSignalCleanup();
    verboseMessages = options.verbose;
    userStderr = ::dup(STDERR_FILENO);
    if (userStderr < 0) userStderr = STDERR_FILENO;
    qInstallMessageHandler(messageHandler);

    // Every output is named before any work: two sources that would write one
    // file, or an output that is one of the sources, stop the whole batch.
    const int total = static_cast<int>(files.size());
    QStringList outputs;
    QMap<QString, QString> sourceOfOutput;
    QSet<QString> sources;
    for (const QString& file : files)
        sources.insert(absolute(file));
    bool collision = false;
    for (const QString& file : files) {
        const QString output = absolute(process->outputPath(absolute(file)));
        outputs << output;
        if (const auto other = sourceOfOutput.constFind(output); other != sourceOfOutput.cend()) {
            report(QCoreApplication::translate(
                       "main", "skyrinse: %1 and %2 would both be written as %3; nothing was done")
                       .arg(other.value(), file, output));
            collision = true;
        } else if (sources.contains(output)) {
            report(QCoreApplication::translate(
                       "main", "skyrinse: the output of %1 would replace the source %2; nothing "
                               "was done")
                       .arg(file, output));
            collision = true;
        }
        sourceOfOutput.insert(output, file);
    }
    app.releaseImages();
    if (collision) return 2;

    int failures = 0;
    for (int i = 0; i < total; ++i) {
        const QString& file = files.at(i);
        const QString counter =
            total > 1 ? QStringLiteral("[%1/%2] ").arg(i + 1).arg(total) : QString();
        QElapsedTimer timer;
        timer.start();
        if (!options.overwrite && existsOnDisk(outputs.at(i))) {
            ++failures;
            report(QCoreApplication::translate(
                       "main", "%1%2: kept %3, which exists already (--overwrite replaces it)")
                       .arg(counter, file, outputs.at(i)));
            continue;
        }
        try {
            // A fresh record per file: a cached map belongs to one picture.
            const RunSettings settings(process, strength);
            QString output;
            {
                const QuietStdout quiet(!options.verbose);
                const DivertedStderr diverted(options.verbose);
                process->processImage(absolute(file), settings.get(), output);
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
