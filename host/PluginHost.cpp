#include "host/PluginHost.h"

#include "plugin/ZIPluginLibrary.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QLibraryInfo>

namespace {
const QString kPluginFile = QStringLiteral("libZHaze.so");
}

PluginHost::PluginHost(QObject* parent) : QObject(parent) {}

PluginHost::~PluginHost() = default;

QStringList PluginHost::candidatePaths() {
    QStringList paths;
    const QString fromEnvironment = qEnvironmentVariable("SKYRINSE_PLUGIN");
    if (!fromEnvironment.isEmpty()) paths << fromEnvironment;
    const QDir here(QCoreApplication::applicationDirPath());
    paths << here.filePath(QStringLiteral("plugins/") + kPluginFile)
          << here.filePath(QStringLiteral("../plugins/") + kPluginFile)
          << here.filePath(QStringLiteral(SKYRINSE_PLUGIN_RELATIVE_DIR "/") + kPluginFile)
          << QLibraryInfo::path(QLibraryInfo::PluginsPath) + QStringLiteral("/skyrinse/") +
                 kPluginFile;
    return paths;
}

bool PluginHost::load(const QString& path) {
    m_library = nullptr;
    QString chosen = path;
    if (chosen.isEmpty()) {
        for (const QString& candidate : candidatePaths()) {
            if (QFileInfo::exists(candidate)) {
                chosen = candidate;
                break;
            }
        }
    }
    if (chosen.isEmpty() || !QFileInfo::exists(chosen)) {
        m_error = chosen.isEmpty()
                      ? tr("The haze plug-in %1 was not found (looked in: %2).")
                            .arg(kPluginFile, candidatePaths().join(QStringLiteral(", ")))
                      : tr("The haze plug-in %1 does not exist.").arg(chosen);
        return false;
    }

    m_loader.setFileName(chosen);
    // The identifier is checked before the library's code is run.
    const QString iid = m_loader.metaData().value(QStringLiteral("IID")).toString();
    if (iid != QStringLiteral(ZIPluginLibrary_iid)) {
        m_error = iid.isEmpty()
                      ? tr("%1 is not a Qt plug-in: %2").arg(chosen, m_loader.errorString())
                      : tr("%1 is not a Skyrinse plug-in (identifier \"%2\", expected \"%3\").")
                            .arg(chosen, iid, QStringLiteral(ZIPluginLibrary_iid));
        return false;
    }
    QObject* root = m_loader.instance();
    if (!root) {
        m_error = tr("Cannot load the plug-in %1: %2").arg(chosen, m_loader.errorString());
        return false;
    }
    m_library = qobject_cast<ZIPluginLibrary*>(root);
    if (!m_library) {
        m_error = tr("%1 does not provide the plug-in library interface.").arg(chosen);
        return false;
    }
    return true;
}
