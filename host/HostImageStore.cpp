#include "host/HostImageStore.h"

HostImage* HostImageStore::get(const QString& absolutePath) {
    if (HostImage* known = m_byPath.value(absolutePath, nullptr)) return known;
    HostImage* made = nullptr;
    if (m_used < kOrderedSlots) {
        if (!m_slots) m_slots = std::make_unique<std::optional<HostImage>[]>(kOrderedSlots);
        made = &m_slots[m_used].emplace(absolutePath);
        ++m_used;
    } else {
        m_more.push_back(std::make_unique<HostImage>(absolutePath));
        made = m_more.back().get();
    }
    m_byPath.insert(absolutePath, made);
    return made;
}

void HostImageStore::clear() {
    m_byPath.clear();
    for (int i = 0; i < m_used; ++i)
        m_slots[i].reset();
    m_used = 0;
    m_more.clear();
}
