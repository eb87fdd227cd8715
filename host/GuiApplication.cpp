#include "host/GuiApplication.h"

GuiApplication::GuiApplication(int& argc, char** argv) : QApplication(argc, argv) {
    setOrganizationName(QStringLiteral("Skyrinse"));
    setApplicationName(QStringLiteral("skyrinse"));
    setApplicationDisplayName(QStringLiteral("Skyrinse"));
}
