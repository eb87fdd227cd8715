#include "host/HostServices.h"

#include "host/HostImage.h"

#include "runtime/nrt.h"
#include <QCoreApplication>
#include <QFileInfo>
#include <algorithm>

const QString HostServices::kHazeProcessId = QStringLiteral("6A2F91C4-38DE-4B07-A15C-7E04D3C2B81F");
const QString HostServices::kStrengthKey = QStringLiteral("hazeRemove");

HostServices::HostServices()
    : m_settings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Skyrinse"),
                 QStringLiteral("skyrinse")) {}

HostServices::~HostServices() = default;

QVariant HostServices::value(const QString& pluginId, const QString& key,
                             const QVariant& defaultValue) const {
    const QString path = pluginId + QLatin1Char('/') + key;
    if (m_settings.contains(path)) return m_settings.value(path);
    return m_sessionDefaults.value(path, defaultValue);
}

void HostServices::setValue(const QString& pluginId, const QString& key, const QVariant& value) {
    m_settings.setValue(pluginId + QLatin1Char('/') + key, value);
    m_settings.sync();
}

void HostServices::setSessionDefault(const QString& pluginId, const QString& key,
                                     const QVariant& value) {
    m_sessionDefaults.insert(pluginId + QLatin1Char('/') + key, value);
}

int HostServices::threadFactorA() const {
    // The runtime's count already folds in the affinity mask, a CPU quota and
    // NRT_NUM_THREADS; counting the mask here again would disagree with it.
    return m_threads > 0 ? m_threads : std::max(1, nrt_get_max_threads());
}

void HostServices::installTranslation(const QString& fileName) {
    auto translator = std::make_unique<QTranslator>();
    // QTranslator falls back from "ZHaze_de_DE.qm" to "ZHaze_de.qm".
    if (!translator->load(fileName, QStringLiteral(":/Translation")))
        return; // no file for this language: the English texts stand
    QCoreApplication::installTranslator(translator.get());
    m_translators.push_back(std::move(translator));
}

ZIHostImage* HostServices::image(const QString& path) {
    const QString key = QFileInfo(path).absoluteFilePath();
    const QMutexLocker lock(&m_imagesMutex);
    return m_images.get(key);
}

void HostServices::releaseImages() {
    const QMutexLocker lock(&m_imagesMutex);
    m_images.clear();
}
