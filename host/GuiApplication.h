// GuiApplication: the application object of `skyrinse --gui`: the host's
// services on a QApplication, so that the wizard can show.
#pragma once

#include "host/HostServices.h"

#include <QApplication>

class GuiApplication : public QApplication, public HostServices {
    Q_OBJECT
    Q_INTERFACES(ZIApplication)

public:
    GuiApplication(int& argc, char** argv);
};
