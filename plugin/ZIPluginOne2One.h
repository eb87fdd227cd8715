// ZIPluginOne2One: a process that takes one input image and writes one output
// image. The host hands it an image by its path, a settings record and a
// string to receive the output path.
#pragma once

#include "plugin/ZIPluginProcess.h"

#include <QStringList>

class ZIPluginOne2One : public ZIPluginProcess {
public:
    // The before-and-after picture of the process, 256 x 128.
    virtual QIcon beforeAfterIcon() const = 0;
    // Processes one image; throws ZException on failure, after which no output
    // file exists.
    virtual void processImage(const QString& sourcePath, HazeSettings* settings,
                              QString& outputPath) = 0;
    // Gives each image of the host's list a settings record.
    virtual void configureImages(const QStringList& paths) = 0;
    // The settings of one image as an XML element.
    virtual QDomElement settingsElement(const QString& path) = 0;
    // The path processImage would write for this source, so that a host can
    // find outputs that collide or exist before any work is done.
    virtual QString outputPath(const QString& sourcePath) = 0;
};

#define ZIPluginOne2One_iid "ZIPluginOne2One"
Q_DECLARE_INTERFACE(ZIPluginOne2One, ZIPluginOne2One_iid)
