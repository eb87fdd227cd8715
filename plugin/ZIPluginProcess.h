// ZIPluginProcess: an image process of a plug-in; the host asks the plug-in's
// library for instances and drives them through these operations.
#pragma once

#include "plugin/ZIAbout.h"

#include <QDomElement>
#include <QIcon>

class QWizardPage;
struct HazeSettings;

class ZIPluginProcess : public ZIAbout {
public:
    // The wizard page of the process; made on first request.
    virtual QWizardPage* wizardPage() = 0;
    // Stores the default settings in the host's persistent store.
    virtual void saveDefaults() {}
    // A new settings record from an element (which may be null); the caller
    // releases it with freeSettings.
    virtual HazeSettings* loadSettings(QDomElement element) {
        (void)element;
        return nullptr;
    }
    virtual QDomElement saveSettings(const HazeSettings* settings) {
        (void)settings;
        return QDomElement();
    }
    virtual void copySettings(HazeSettings* target, const HazeSettings* source) {
        (void)target;
        (void)source;
    }
    virtual void freeSettings(HazeSettings* settings) { (void)settings; }
};

#define ZIPluginProcess_iid "ZIPluginProcess"
Q_DECLARE_INTERFACE(ZIPluginProcess, ZIPluginProcess_iid)
