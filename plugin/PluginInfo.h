// Fixed facts of the haze plug-in shared by its classes.
#pragma once

#include <QString>

namespace PluginInfo {

inline QString processId() {
    return QStringLiteral("6A2F91C4-38DE-4B07-A15C-7E04D3C2B81F");
}
inline QString libraryId() {
    return QStringLiteral("6A2F91C4-38DE-4B07-A15C-C95E10F73A26");
}
inline QString version() {
    return QStringLiteral("2.5.0.0");
}
inline QString author() {
    return QStringLiteral("The Skyrinse developers");
}
inline QString company() {
    return QStringLiteral("Skyrinse");
}
// Key of the strength in the settings element and in the host's store.
inline QString strengthKey() {
    return QStringLiteral("hazeRemove");
}

} // namespace PluginInfo
