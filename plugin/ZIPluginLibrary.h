// ZIPluginLibrary: the root object of a plug-in library, the one instance
// that QPluginLoader gives the host.
#pragma once

#include <QList>
#include <QtPlugin>

class ZIPluginProcess;

class ZIPluginLibrary {
public:
    virtual ~ZIPluginLibrary() = default;
    // With `create`, one more process instance is made; in all cases the list
    // of live instances is returned.
    virtual QList<ZIPluginProcess*> plugins(bool create) = 0;
};

// The identifier the host checks in the plug-in's metadata before loading it.
#define ZIPluginLibrary_iid "org.skyrinse.ZIPluginLibrary/1.0"
Q_DECLARE_INTERFACE(ZIPluginLibrary, ZIPluginLibrary_iid)
