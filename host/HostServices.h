// HostServices: what the plug-in finds as ZIApplication: the settings store,
// the language, the CPUs it may use, and the image objects over IFL. The
// console's and the wizard's application objects both carry it, so that the
// plug-in sees one host whichever Qt application runs. Image objects are
// asked for from the batch thread and the interface thread, so their table is
// locked.
#pragma once

#include "host/HostImageStore.h"
#include "plugin/ZIApplication.h"

#include <QMap>
#include <QMutex>
#include <QSettings>
#include <QTranslator>
#include <memory>
#include <vector>

class HostServices : public ZIApplication {
public:
    HostServices();
    ~HostServices() override;
    HostServices(const HostServices&) = delete;
    HostServices& operator=(const HostServices&) = delete;

    // The stored value, else a default of this session (setSessionDefault),
    // else `defaultValue`.
    QVariant value(const QString& pluginId, const QString& key,
                   const QVariant& defaultValue) const override;
    void setValue(const QString& pluginId, const QString& key, const QVariant& value) override;
    // The CPUs of the process's affinity mask, or what --threads asked for.
    int threadFactorA() const override;
    int threadFactorB() const override { return 1; }
    QLocale locale() const override { return QLocale::system(); }
    void installTranslation(const QString& fileName) override;
    ZIHostImage* image(const QString& path) override;

    void setThreadCount(int threads) { m_threads = threads; }
    // What value() answers for a key that the store does not hold; not saved.
    void setSessionDefault(const QString& pluginId, const QString& key, const QVariant& value);
    // Forgets the image objects (and the pixels they hold).
    void releaseImages();

    // The haze process's strength setting, as the plug-in stores it.
    static const QString kHazeProcessId;
    static const QString kStrengthKey;
    static constexpr int kDefaultStrength = 60;

private:
    mutable QSettings m_settings;
    QMap<QString, QVariant> m_sessionDefaults;
    int m_threads = 0;
    std::vector<std::unique_ptr<QTranslator>> m_translators;
    QMutex m_imagesMutex;
    HostImageStore m_images; // in the order asked for, which orders the wizard's list
};
