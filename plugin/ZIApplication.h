// ZIApplication: what a plug-in may ask of its host. The host's application
// object implements it and answers qt_metacast("ZIApplication").
#pragma once

#include <QCoreApplication>
#include <QLocale>
#include <QString>
#include <QVariant>
#include <QtPlugin>

class ZImage;

// The host's view of one image file.
class ZIHostImage {
public:
    virtual ~ZIHostImage() = default;
    virtual QString name() const = 0;
    virtual int height() const = 0;
    virtual int width() const = 0;
    virtual int channelCount() const = 0;
    virtual int bitDepth() const = 0;
    // True when the output must be TIFF whatever the source's suffix.
    virtual bool forcesTiff() const = 0;
    // A resized copy for the preview; stays the host's until released.
    virtual ZImage* scaledImage(int width, int height, int mode) = 0;
    virtual void releaseScaledImage(int width, int height, int mode) = 0;
    // The full pixels in the source's own format; stays the host's until released.
    virtual ZImage* acquireImage(int mode) = 0;
    virtual void releaseImage(int mode) = 0;
};

class ZIApplication {
public:
    virtual ~ZIApplication() = default;
    virtual QVariant value(const QString& pluginId, const QString& key,
                           const QVariant& defaultValue) const = 0;
    virtual void setValue(const QString& pluginId, const QString& key, const QVariant& value) = 0;
    virtual int threadFactorA() const = 0;
    virtual int threadFactorB() const = 0;
    virtual QLocale locale() const = 0;
    virtual void installTranslation(const QString& fileName) = 0;
    // The host's image object for a source path; the host owns it.
    virtual ZIHostImage* image(const QString& path) = 0;

    // The host, if the running application is one; null otherwise.
    static ZIApplication* instance();
};

inline ZIApplication* ZIApplication::instance() {
    QCoreApplication* application = QCoreApplication::instance();
    return application ? static_cast<ZIApplication*>(application->qt_metacast("ZIApplication"))
                       : nullptr;
}

#define ZIApplication_iid "ZIApplication"
Q_DECLARE_INTERFACE(ZIApplication, ZIApplication_iid)
