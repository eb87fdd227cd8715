#include "host/SkyrinseApplication.h"

SkyrinseApplication::SkyrinseApplication(int& argc, char** argv) : QCoreApplication(argc, argv) {
    setOrganizationName(QStringLiteral("Skyrinse"));
    setApplicationName(QStringLiteral("skyrinse"));
}
