#include "host/SkyrinseApplication.h"

#include "host/HostImage.h"

#include <QFileInfo>
#include <sched.h>

SkyrinseApplication::SkyrinseApplication(int& argc, char** argv)
    : QCoreApplication(argc, argv),
      m_settings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Skyrinse"),
                 QStringLiteral("skyrinse")) {
    setOrganizationName(QStringLiteral("Skyrinse"));
    setApplicationName(QStringLiteral("skyrinse"));
}

SkyrinseApplication::~SkyrinseApplication() = default;

QVariant SkyrinseApplication::value(const QString& pluginId, const QString& key,
                                    const QVariant& defaultValue) const {
    return m_settings.value(pluginId + QLatin1Char('/') + key, defaultValue);
}

bool SkyrinseApplication::hasValue(const QString& pluginId, const QString& key) const {
    return m_settings.contains(pluginId + QLatin1Char('/') + key);
}

void SkyrinseApplication::setValue(const QString& pluginId, const QString& key,
                                   const QVariant& value) {
    m_settings.setValue(pluginId + QLatin1Char('/') + key, value);
    m_settings.sync();
}

int SkyrinseApplication::availableCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) return 1;
    return std::max(1, CPU_COUNT(&set));
}

int SkyrinseApplication::threadFactorA() const {
    return m_threads > 0 ? m_threads : availableCpus();
}

int SkyrinseApplication::threadFactorB() const {
    return 1;
}

QLocale SkyrinseApplication::locale() const {
    return QLocale::system();
}

void SkyrinseApplication::installTranslation(const QString& fileName) {
    auto translator = std::make_unique<QTranslator>();
    // QTranslator falls back from "ZHaze_de_DE.qm" to "ZHaze_de.qm".
    if (!translator->load(fileName, QStringLiteral(":/Translation")))
        return; // no file for this language: the English texts stand
    translator->setParent(this);
    installTranslator(translator.get());
    m_translators.append(translator.release());
}

ZIHostImage* SkyrinseApplication::image(const QString& path) {
    const QString key = QFileInfo(path).absoluteFilePath();
    return m_images.get(key);
}

void SkyrinseApplication::releaseImages() {
    m_images.clear();
}
