// SkyrinseApplication: the host's application object. It is what the plug-in
// finds as ZIApplication: the settings store, the language, the CPUs it may
// use, and the image objects over IFL.
#pragma once

#include "host/HostImageStore.h"
#include "plugin/ZIApplication.h"

#include <QCoreApplication>
#include <QList>
#include <QMap>
#include <QSettings>
#include <QTranslator>
#include <memory>

class SkyrinseApplication : public QCoreApplication, public ZIApplication {
    Q_OBJECT
    Q_INTERFACES(ZIApplication)

public:
    SkyrinseApplication(int& argc, char** argv);
    ~SkyrinseApplication() override;

    QVariant value(const QString& pluginId, const QString& key,
                   const QVariant& defaultValue) const override;
    void setValue(const QString& pluginId, const QString& key, const QVariant& value) override;
    // The CPUs of the process's affinity mask, or what --threads asked for.
    int threadFactorA() const override;
    int threadFactorB() const override;
    QLocale locale() const override;
    void installTranslation(const QString& fileName) override;
    ZIHostImage* image(const QString& path) override;

    void setThreadCount(int threads) { m_threads = threads; }
    // True when a value is stored under the key.
    bool hasValue(const QString& pluginId, const QString& key) const;
    // Forgets the image objects (and the pixels they hold).
    void releaseImages();

    static int availableCpus();

private:
    mutable QSettings m_settings;
    int m_threads = 0;
    QList<QTranslator*> m_translators; // children of this object
    HostImageStore m_images;
};
