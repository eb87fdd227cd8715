// SkyrinseApplication: the application object of the console batch. It
// needs no display; the plug-in finds the host's services in it.
#pragma once

#include "host/HostServices.h"

#include <QCoreApplication>

class SkyrinseApplication : public QCoreApplication, public HostServices {
    Q_OBJECT
    Q_INTERFACES(ZIApplication)

public:
    SkyrinseApplication(int& argc, char** argv);
};
