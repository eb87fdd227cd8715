#include "ui/ComputePreview.h"

#include "ZImage/ZImageHaze.h"
#include "plugin/ZHazeOne2One.h"
#include "plugin/ZIApplication.h"

#include <QCoreApplication>
#include <algorithm>
#include <cstring>
#include <new>

namespace {

// Hands the host's scaled picture back on every way out of the decode.
class ScaledPicture {
public:
    ScaledPicture(ZIHostImage* image, QSize size)
        : m_image(image), m_size(size),
          m_picture(image->scaledImage(size.width(), size.height(), 1)) {}
    ~ScaledPicture() { m_image->releaseScaledImage(m_size.width(), m_size.height(), 1); }
    ScaledPicture(const ScaledPicture&) = delete;
    ScaledPicture& operator=(const ScaledPicture&) = delete;
    const ZImage& picture() const {
        Z_CHECK(m_picture && !m_picture->IsEmpty(), Z_INVALID_BITMAP);
        return *m_picture;
    }

private:
    ZIHostImage* m_image;
    QSize m_size;
    ZImage* m_picture;
};

bool sameSize(const ZImage& image, QSize size) {
    return !image.IsEmpty() && image.Width() == size.width() && image.Height() == size.height();
}

} // namespace

ComputePreview::ComputePreview(ZHazeOne2One* plugin, QObject* parent)
    : QThread(parent), m_plugin(plugin) {}

ComputePreview::~ComputePreview() {
    wait();
}

void ComputePreview::setParameters(const Request& next) {
    const QMutexLocker lock(&m_mutex);
    m_next = next;
}

ComputePreview::Entry& ComputePreview::entryLocked(ZIHostImage* image) {
    m_recent.removeOne(image);
    m_recent.append(image);
    while (m_recent.size() > cacheLimit)
        m_cache.remove(m_recent.takeFirst());
    return m_cache[image];
}

std::shared_ptr<const ZImage> ComputePreview::cachedSource(ZIHostImage* image, QSize size) {
    const QMutexLocker lock(&m_mutex);
    const auto found = m_cache.constFind(image);
    if (found == m_cache.constEnd() || !found->source || !sameSize(*found->source, size))
        return nullptr;
    return found->source;
}

void ComputePreview::clearCache() {
    const QMutexLocker lock(&m_mutex);
    ++m_generation;
    m_cache.clear();
    m_recent.clear();
}

void ComputePreview::run() {
    Request request;
    Entry entry;
    quint64 generation = 0;
    {
        const QMutexLocker lock(&m_mutex);
        request = m_next;
        generation = m_generation;
        if (m_cache.contains(request.image)) entry = entryLocked(request.image);
    }

    ZImage work;
    std::shared_ptr<const float[]> map;
    QString error;
    try {
        Z_CHECK(request.image && !request.size.isEmpty(), Z_INVALID_PARAMETER);
        if (!entry.source || !sameSize(*entry.source, request.size)) {
            auto source = std::make_shared<ZImage>();
            {
                const ScaledPicture scaled(request.image, request.size);
                scaled.picture().CopyTo(*source, ZImage::RGBA, 32);
            }
            entry = Entry{std::move(source), nullptr, {}};
            {
                const QMutexLocker lock(&m_mutex);
                if (generation == m_generation) entryLocked(request.image) = entry;
            }
            emit sourceLoaded(request.tag);
        }

        work.CopyFrom(*entry.source);
        HazeSettings settings;
        settings.strength = request.strength;
        if (entry.map) {
            const std::size_t count = static_cast<std::size_t>(work.Width()) * work.Height();
            settings.airDepthMap = std::make_unique_for_overwrite<float[]>(count);
            std::memcpy(settings.airDepthMap.get(), entry.map.get(), count * sizeof(float));
            settings.airlight = entry.airlight;
        }
        m_plugin->runHazeRemoval(work, &settings);
        map = entry.map;
        if (!map && settings.airDepthMap) {
            map = std::shared_ptr<const float[]>(std::move(settings.airDepthMap));
            const QMutexLocker lock(&m_mutex);
            if (generation == m_generation) {
                Entry& cached = entryLocked(request.image);
                if (cached.source == entry.source) {
                    cached.map = map;
                    cached.airlight = settings.airlight;
                }
            }
        }
    } catch (const ZException& e) {
        error = QString::fromUtf8(e.what());
    } catch (const std::bad_alloc&) {
        error = Z_NOT_ENOUGH_MEMORY;
    } catch (const std::exception& e) {
        error = QString::fromUtf8(e.what());
    } catch (...) {
        error = QCoreApplication::translate("UIHazePreview", "unknown failure");
    }
    if (!error.isEmpty()) {
        work.Free();
        map.reset();
    }

    const QMutexLocker lock(&m_mutex);
    m_work = std::move(work);
    m_workMap = std::move(map);
    m_workError = error;
    m_workTag = request.tag;
}

void ComputePreview::showAirDepth(QImage& image) {
    // One lock for both branches: the picture is read under the same hold.
    const QMutexLocker lock(&m_mutex);
    if (m_workMap && !m_work.IsEmpty()) {
        const ZImage depth(m_work.Width(), m_work.Height(), ZImage::Gray, 32, false,
                           const_cast<float*>(m_workMap.get()), m_work.Width() * 4);
        depth.ToQImage(image);
    } else if (!m_work.IsEmpty()) {
        m_work.ToQImage(image);
    } else {
        image = QImage();
    }
}

quint64 ComputePreview::result(QImage& image, QString& error) {
    const QMutexLocker lock(&m_mutex);
    if (m_work.IsEmpty())
        image = QImage();
    else
        m_work.ToQImage(image);
    error = m_workError;
    return m_workTag;
}
