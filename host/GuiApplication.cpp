#include "host/GuiApplication.h"

#include "host/HostImage.h"
#include "host/SkyrinseApplication.h"

#include <QFileInfo>
#include <QTranslator>

GuiApplication::GuiApplication(int& argc, char** argv)
    : QApplication(argc, argv), m_settings(QSettings::NativeFormat, QSettings::UserScope,
                                           QStringLiteral("Skyrinse"), QStringLiteral("skyrinse")) {
    setOrganizationName(QStringLiteral("Skyrinse"));
    setApplicationName(QStringLiteral("skyrinse"));
    setApplicationDisplayName(QStringLiteral("Skyrinse"));
}

GuiApplication::~GuiApplication() = default;

QVariant GuiApplication::value(const QString& pluginId, const QString& key,
                               const QVariant& defaultValue) const {
    const QString path = pluginId + QLatin1Char('/') + key;
    if (m_settings.contains(path)) return m_settings.value(path);
    return m_sessionDefaults.value(path, defaultValue);
}

void GuiApplication::setValue(const QString& pluginId, const QString& key, const QVariant& value) {
    m_settings.setValue(pluginId + QLatin1Char('/') + key, value);
    m_settings.sync();
}

void GuiApplication::setSessionDefault(const QString& pluginId, const QString& key,
                                       const QVariant& value) {
    m_sessionDefaults.insert(pluginId + QLatin1Char('/') + key, value);
}

int GuiApplication::threadFactorA() const {
    return m_threads > 0 ? m_threads : SkyrinseApplication::availableCpus();
}

void GuiApplication::installTranslation(const QString& fileName) {
    auto translator = std::make_unique<QTranslator>(this);
    // QTranslator falls back from "ZHaze_de_DE.qm" to "ZHaze_de.qm".
    if (translator->load(fileName, QStringLiteral(":/Translation")))
        installTranslator(translator.release());
}

ZIHostImage* GuiApplication::image(const QString& path) {
    const QString key = QFileInfo(path).absoluteFilePath();
    const QMutexLocker lock(&m_imagesMutex);
    return m_images.get(key);
}
