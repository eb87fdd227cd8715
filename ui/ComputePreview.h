// ComputePreview: the worker thread of the preview. It has no queue and no
// cancel: one computation runs at a time, the newest parameters wait in a
// slot of their own, and the widget restarts the thread when it ends if they
// changed meanwhile (UIHazePreview::computePreview).
//
// A run decodes the preview picture of its image (on this thread, so that the
// window never freezes while a photograph loads) unless it is cached, then
// runs the plug-in's runHazeRemoval on a copy of it. The costly depth map and
// airlight of a picture are cached with it, per image, so a change of
// strength on an image already seen costs one pass over the preview. The
// cache lives here and not in the plug-in's HazeSettings records: a map of
// the preview's size must never reach a full-size run, and a record may be
// released by configureImages while a run is still in flight.
//
// Every field below the mutex is guarded by it; the mutex is held only to
// copy, never during the computation. Every exception of a run is caught and
// becomes the run's error text.
#pragma once

#include "ZImage/ZImage.h"

#include <QHash>
#include <QImage>
#include <QList>
#include <QMutex>
#include <QSize>
#include <QString>
#include <QThread>
#include <array>
#include <memory>

class ZHazeOne2One;
class ZIHostImage;

class ComputePreview : public QThread {
    Q_OBJECT

public:
    // What a run is asked to compute.
    struct Request {
        ZIHostImage* image = nullptr; // the host's image object; stays the host's
        QSize size;                   // size of the preview picture
        int strength = 0;             // in percent
        quint64 tag = 0;              // the caller's name for this request
    };

    explicit ComputePreview(ZHazeOne2One* plugin, QObject* parent = nullptr);
    // Waits for the run in flight, without limit.
    ~ComputePreview() override;

    // The parameters of the next run; callable at any time, also while a run
    // is in flight, which they do not affect.
    void setParameters(const Request& next);

    // Renders the depth map of the last run as grey (0.0 black, 1.0 white),
    // or its picture when it has no map; a null image before any run.
    void showAirDepth(QImage& image);
    // The corrected picture of the last run and its error text (empty on
    // success; the picture is then null). Returns the tag of that run.
    quint64 result(QImage& image, QString& error);
    // The cached preview picture of `image`, or null.
    std::shared_ptr<const ZImage> cachedSource(ZIHostImage* image, QSize size);
    // Forgets every cached picture and map, also one that a run in flight
    // would store; for a new set of images.
    void clearCache();

    // How many pictures the cache keeps at most.
    static constexpr int cacheLimit = 8;

signals:
    // The preview picture of the request with this tag has been decoded.
    void sourceLoaded(quint64 tag);

protected:
    void run() override;

private:
    struct Entry {
        std::shared_ptr<const ZImage> source;
        std::shared_ptr<const float[]> map; // depth map of `source`, or null
        std::array<float, 3> airlight{};
    };
    // Under the mutex: the entry of `image`, made the most recent.
    Entry& entryLocked(ZIHostImage* image);

    ZHazeOne2One* m_plugin;
    QMutex m_mutex;
    Request m_next;
    quint64 m_generation = 0; // changed by clearCache
    QHash<ZIHostImage*, Entry> m_cache;
    QList<ZIHostImage*> m_recent; // most recent last
    // The last run: its picture (the result), its map and its error.
    ZImage m_work;
    std::shared_ptr<const float[]> m_workMap;
    QString m_workError;
    quint64 m_workTag = 0;
};
