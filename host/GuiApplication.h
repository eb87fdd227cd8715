// GuiApplication: the host's application object for `skyrinse --gui`. The
// same duties as SkyrinseApplication (settings store, language, CPUs, image
// objects over IFL), on a QApplication so that the wizard can show. Image
// objects are asked for from the batch thread and the interface thread, so
// their table is locked.
#pragma once

#include "host/HostImageStore.h"
#include "plugin/ZIApplication.h"

#include <QApplication>
#include <QMap>
#include <QMutex>
#include <QSettings>
#include <memory>

class HostImage;

class GuiApplication : public QApplication, public ZIApplication {
    Q_OBJECT
    Q_INTERFACES(ZIApplication)

public:
    GuiApplication(int& argc, char** argv);
    ~GuiApplication() override;

    // The stored value, else a default of this session (setSessionDefault),
    // else `defaultValue`.
    QVariant value(const QString& pluginId, const QString& key,
                   const QVariant& defaultValue) const override;
    void setValue(const QString& pluginId, const QString& key, const QVariant& value) override;
    int threadFactorA() const override;
    int threadFactorB() const override { return 1; }
    QLocale locale() const override { return QLocale::system(); }
    void installTranslation(const QString& fileName) override;
    ZIHostImage* image(const QString& path) override;

    void setThreadCount(int threads) { m_threads = threads; }
    // What value() answers for a key that the store does not hold; not saved.
    void setSessionDefault(const QString& pluginId, const QString& key, const QVariant& value);

private:
    mutable QSettings m_settings;
    QMap<QString, QVariant> m_sessionDefaults;
    int m_threads = 0;
    QMutex m_imagesMutex;
    HostImageStore m_images; // in the order asked for, which orders the wizard's list
};
