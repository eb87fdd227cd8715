// HostImageStore: the host's image objects, one per absolute path.
//
// The plug-in keys its per-image map by the objects' addresses, and the
// wizard lists the images in that map's order. The objects are therefore made
// in one block, in the order they are asked for, so that their addresses, and
// with them the wizard's list, follow the order of the command line rather
// than the allocator's whims. Past the block's size they are made one by one.
#pragma once

#include "host/HostImage.h"

#include <QMap>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

class HostImageStore {
public:
    // The object of an absolute path, made on first use.
    HostImage* get(const QString& absolutePath);
    // Forgets every object (and the pixels they hold).
    void clear();

private:
    static constexpr int kOrderedSlots = 256;
    std::unique_ptr<std::optional<HostImage>[]> m_slots;
    int m_used = 0;
    std::vector<std::unique_ptr<HostImage>> m_more;
    QMap<QString, HostImage*> m_byPath;
};
