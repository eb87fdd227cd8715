#include "plugin/ZHazeOne2One.h"

#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "plugin/PluginInfo.h"
#include "plugin/ZIApplication.h"
#include "ui/UIHazePage.h"

#include <QApplication>
#include <QDir>
#include <QDomDocument>
#include <QFileInfo>

#include <optional>

namespace {

// Gives the host's image back on every path out of processImage, so that a
// failed run does not keep the source's pixels locked.
class AcquiredImage {
public:
    explicit AcquiredImage(ZIHostImage* image) : m_image(image), m_pixels(image->acquireImage(1)) {}
    ~AcquiredImage() { m_image->releaseImage(1); }
    AcquiredImage(const AcquiredImage&) = delete;
    AcquiredImage& operator=(const AcquiredImage&) = delete;
    const ZImage& pixels() const {
        Z_CHECK(m_pixels, Z_INVALID_BITMAP);
        return *m_pixels;
    }

private:
    ZIHostImage* m_image;
    ZImage* m_pixels;
};

} // namespace

ZHazeOne2One::ZHazeOne2One(QObject* parent) : QObject(parent) {
    setObjectName(QStringLiteral("ZHazeOne2One"));
    m_defaultSettings = loadSettings(QDomElement());
}

ZHazeOne2One::~ZHazeOne2One() {
    // A page that no wizard took is still ours; one that a wizard took goes
    // with the wizard, which a host closes before it unloads the plug-in.
    if (m_page && !m_page->parent()) delete m_page.data();
    clearSettingsMap();
    freeSettings(m_defaultSettings);
}

QString ZHazeOne2One::name() const {
    return QStringLiteral("Skyrinse");
}
QString ZHazeOne2One::author() const {
    return PluginInfo::author();
}
QString ZHazeOne2One::company() const {
    return PluginInfo::company();
}
QString ZHazeOne2One::version() const {
    return PluginInfo::version();
}
QString ZHazeOne2One::id() const {
    return PluginInfo::processId();
}

QString ZHazeOne2One::description() const {
    // The missing blank after "layer." is part of the translation key.
    return tr("Haze is an atmospheric phenomenon that can affect outdoor photos. Everything far "
              "from the shooter seems to be covered by a white layer.This plugin helps you to "
              "remove the haze and clean your photo. To do that, it analyses each pixel to "
              "calculate the depth of air.");
}

QIcon ZHazeOne2One::icon() const {
    return QIcon(QStringLiteral(":/%1/Resources/ZHaze.png").arg(PluginInfo::processId()));
}

QIcon ZHazeOne2One::beforeAfterIcon() const {
    return QIcon(
        QStringLiteral(":/%1/Resources/ZHazeBeforeAfter.png").arg(PluginInfo::processId()));
}

QWizardPage* ZHazeOne2One::wizardPage() {
    // Widgets need a QApplication; a host without one gets no page rather
    // than a crash.
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) return nullptr;
    if (!m_page) {
        auto* page = new UIHazePage(this, nullptr);
        m_page = page;
        // Images configured before the page was asked for.
        if (!m_settingsMap.isEmpty()) page->setImages(m_settingsMap);
    }
    return m_page.data();
}

void ZHazeOne2One::saveDefaults() {
    ZIApplication* host = ZIApplication::instance();
    if (!host || !m_defaultSettings) return;
    host->setValue(PluginInfo::processId(), PluginInfo::strengthKey(),
                   QVariant(static_cast<int>(m_defaultSettings->strength)));
}

HazeSettings* ZHazeOne2One::loadSettings(QDomElement element) {
    auto settings = std::make_unique<HazeSettings>();
    settings->strength = 0;
    if (ZIApplication* host = ZIApplication::instance())
        settings->strength = host->value(PluginInfo::processId(), PluginInfo::strengthKey(),
                                         QVariant(QStringLiteral("0")))
                                 .toInt();
    if (!element.isNull())
        settings->strength =
            element.attribute(PluginInfo::strengthKey(), QStringLiteral("0")).toInt(nullptr, 10);
    return settings.release();
}

QDomElement ZHazeOne2One::saveSettings(const HazeSettings* settings) {
    QDomDocument document(name());
    QDomElement element = document.createElement(name());
    element.setAttribute(PluginInfo::strengthKey(), static_cast<qlonglong>(settings->strength));
    return element;
}

void ZHazeOne2One::copySettings(HazeSettings* target, const HazeSettings* source) {
    if (target && source) target->strength = source->strength;
}

void ZHazeOne2One::freeSettings(HazeSettings* settings) {
    std::unique_ptr<HazeSettings> owned(settings);
}

void ZHazeOne2One::rememberDefaults(HazeSettings* settings) {
    copySettings(m_defaultSettings, settings);
}

void ZHazeOne2One::clearSettingsMap() {
    for (HazeSettings* settings : std::as_const(m_settingsMap))
        freeSettings(settings);
    m_settingsMap.clear();
}

void ZHazeOne2One::configureImages(const QStringList& paths) {
    // The page lets go of the old records before they are released.
    auto* page = qobject_cast<UIHazePage*>(m_page.data());
    if (page) page->setImages({});
    clearSettingsMap();
    ZIApplication* host = ZIApplication::instance();
    if (!host) return;
    for (const QString& path : paths) {
        ZIHostImage* image = host->image(path);
        if (!image) continue;
        if (HazeSettings* old = m_settingsMap.value(image, nullptr))
            freeSettings(old); // the same file listed twice keeps one record
        m_settingsMap.insert(image, loadSettings(QDomElement()));
    }
    if (page) page->setImages(m_settingsMap);
}

QDomElement ZHazeOne2One::settingsElement(const QString& path) {
    ZIApplication* host = ZIApplication::instance();
    ZIHostImage* image = host ? host->image(path) : nullptr;
    if (HazeSettings* settings = m_settingsMap.value(image, nullptr)) return saveSettings(settings);
    HazeSettings* fresh = loadSettings(QDomElement());
    const QDomElement element = saveSettings(fresh);
    freeSettings(fresh);
    return element;
}

QString ZHazeOne2One::outputPathFor(const QString& sourcePath, bool forcesTiff) {
    const QFileInfo info(sourcePath);
    const QString suffix = forcesTiff ? QStringLiteral("tiff") : info.suffix().toLower();
    return info.absolutePath() + QDir::separator() + info.completeBaseName() + tr("_dehazed") +
           QLatin1Char('.') + suffix;
}

QString ZHazeOne2One::outputPath(const QString& sourcePath) {
    ZIApplication* host = ZIApplication::instance();
    ZIHostImage* image = host ? host->image(sourcePath) : nullptr;
    return outputPathFor(sourcePath, image && image->forcesTiff());
}

int ZHazeOne2One::targetType(int channelCount) {
    if (channelCount == 1) return ZImage::Gray;
    if (channelCount == 3) return ZImage::RGB;
    return ZImage::RGBA;
}

int ZHazeOne2One::targetDepth(int bitDepth) {
    if (bitDepth < 9) return 8;
    if (bitDepth <= 16) return 16;
    return 32;
}

qint64 ZHazeOne2One::runBytesPerPixel(int channelCount, int bitDepth) {
    // The run goes band by band, so no full-size float picture or map is
    // held: the source as the host holds it, the output O in its target
    // format, and the decoder's own buffers, which measure at about one more
    // copy of the source while a file is read.
    const int sourceBytes = std::max(1, channelCount) * ((std::max(1, bitDepth) + 7) / 8);
    const int outputBytes =
        ZImage::ComponentsOfType(targetType(channelCount)) * targetDepth(bitDepth) / 8;
    return 2 * sourceBytes + outputBytes;
}

void ZHazeOne2One::runHazeRemoval(ZImage& image, HazeSettings* settings) const {
    ::runHazeRemoval(image, *settings);
}

void ZHazeOne2One::processImage(const QString& sourcePath, HazeSettings* settings,
                                QString& outputPath) {
    ZIApplication* host = ZIApplication::instance();
    Z_CHECK(host && settings, Z_INVALID_PARAMETER);
    ZIHostImage* image = host->image(sourcePath);
    Z_CHECK(image, Z_INVALID_PARAMETER);

    const bool forcesTiff = image->forcesTiff();
    outputPath = outputPathFor(sourcePath, forcesTiff);
    const QString format = QFileInfo(outputPath).suffix();

    // What would make the run end without a file is found before the work:
    // an unknown format, a folder that cannot be written, too little memory.
    // A source whose header cannot be read has no size; acquiring it below
    // says why.
    const qint64 pixels = qint64{image->width()} * image->height();
    if (pixels > 0) {
        CheckBeforeSave(outputPath, format, Z_LOCATION);
        // The solve of the working image has a fixed size whatever the
        // picture's (about 135 MiB measured, rounded up).
        constexpr qint64 solveBytes = qint64{256} * 1024 * 1024;
        CheckForMemory(pixels * runBytesPerPixel(image->channelCount(), image->bitDepth()) +
                           solveBytes,
                       sourcePath, Z_LOCATION);
    }

    // The solver's ordering of the working system depends on the picture's
    // size only: it is worked out on a thread of its own while the source
    // decodes, on a core the decoder leaves idle.
    std::optional<RefinementPreparation> preparation;
    if (pixels > 0 && settings->strength != 0 && !settings->airDepthMap)
        preparation.emplace(image->width(), image->height());

    // The source's pixels go to the output's format band by band through
    // the float form that the haze removal works in; neither that form nor
    // the full-size map is ever held whole, and the source is given back as
    // soon as the output is complete. The encoder takes the bands as they are
    // done, on whichever core is free, instead of waiting for the last one.
    ZImage output;
    QStringList notes;
    std::optional<ZImageRowSave> save;
    {
        const AcquiredImage source(image);
        const ZImage& pixels = source.pixels();
        const int type = targetType(image->channelCount());
        const int depth = targetDepth(image->bitDepth());
        output.Create(pixels.Width(), pixels.Height(), type, depth, false);
        save.emplace(output, outputPath, format, -1, sourcePath, &notes);
        runHazeRemovalInto(pixels, *settings, output, type, depth,
                           [&save](int rows) { save->rowsReady(rows); });
    }
    save->finish();
    // The picture is written; what of the source's metadata could not go
    // with it is told, not hidden.
    for (const QString& note : std::as_const(notes))
        qWarning("%s: %s", qPrintable(outputPath), qPrintable(note));
}
