// ZHazeOne2One: the haze removal process as the host sees it: per-image
// settings, their XML form, and the run that writes "<name>_dehazed.<suffix>"
// beside the source.
#pragma once

#include "plugin/ZIPluginOne2One.h"

#include <QMap>
#include <QObject>
#include <QPointer>
#include <QWizardPage>
#include <memory>

class ZIHostImage;
class ZImage;

class ZHazeOne2One : public QObject, public ZIPluginOne2One {
    Q_OBJECT
    Q_INTERFACES(ZIPluginOne2One ZIPluginProcess ZIAbout)

public:
    explicit ZHazeOne2One(QObject* parent = nullptr);
    ~ZHazeOne2One() override;

    // ZIAbout
    QString name() const override;
    QString author() const override;
    QString company() const override;
    QString description() const override;
    QString version() const override;
    QIcon icon() const override;
    QString id() const override;

    // ZIPluginProcess
    QWizardPage* wizardPage() override;
    void saveDefaults() override;
    HazeSettings* loadSettings(QDomElement element) override;
    QDomElement saveSettings(const HazeSettings* settings) override;
    void copySettings(HazeSettings* target, const HazeSettings* source) override;
    void freeSettings(HazeSettings* settings) override;

    // ZIPluginOne2One
    QIcon beforeAfterIcon() const override;
    void processImage(const QString& sourcePath, HazeSettings* settings,
                      QString& outputPath) override;
    void configureImages(const QStringList& paths) override;
    QDomElement settingsElement(const QString& path) override;
    QString outputPath(const QString& sourcePath) override;

    // The whole haze algorithm on a float RGBA image, in place.
    void runHazeRemoval(ZImage& image, HazeSettings* settings) const;

    // The output path of a source: beside it, "_dehazed" (translated) before
    // the lowered suffix, or "tiff" when the host forces TIFF.
    static QString outputPathFor(const QString& sourcePath, bool forcesTiff);
    // Colour type and depth of the output for the source's channels and bits.
    static int targetType(int channelCount);
    static int targetDepth(int bitDepth);
    // Bytes per pixel that a run holds at its peak, for the memory check.
    static qint64 runBytesPerPixel(int channelCount, int bitDepth);

    const QMap<ZIHostImage*, HazeSettings*>& settingsMap() const { return m_settingsMap; }

public slots:
    // Copies the strength into the defaults, after "Apply to all Images".
    virtual void rememberDefaults(HazeSettings* settings);

private:
    void clearSettingsMap();

    QMap<ZIHostImage*, HazeSettings*> m_settingsMap; // owned records
    QPointer<QWizardPage> m_page;
    HazeSettings* m_defaultSettings = nullptr; // owned
};
