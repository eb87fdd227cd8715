#include "TestHost.h"

#include "host/HostImage.h"

#include <QFileInfo>

TestHost::TestHost(int& argc, char** argv) : QGuiApplication(argc, argv) {}

TestHost::~TestHost() {
    resetTranslations();
}

QVariant TestHost::value(const QString& pluginId, const QString& key,
                         const QVariant& defaultValue) const {
    return store.value(pluginId + QLatin1Char('/') + key, defaultValue);
}

void TestHost::setValue(const QString& pluginId, const QString& key, const QVariant& value) {
    store.insert(pluginId + QLatin1Char('/') + key, value);
}

void TestHost::installTranslation(const QString& fileName) {
    requestedTranslations << fileName;
    auto translator = std::make_unique<QTranslator>();
    if (translator->load(fileName, QStringLiteral(":/Translation"))) {
        installTranslator(translator.get());
        translators.push_back(std::move(translator));
    }
}

void TestHost::resetTranslations() {
    for (const auto& translator : translators)
        removeTranslator(translator.get());
    translators.clear();
}

ZIHostImage* TestHost::image(const QString& path) {
    const QString key = QFileInfo(path).absoluteFilePath();
    if (!images.contains(key)) images.insert(key, std::make_shared<HostImage>(key));
    return images.value(key).get();
}
