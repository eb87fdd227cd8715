// Image files: ZImage::Load, which decodes a picture through IFL.
#include "ZImage/ZFileName.h"
#include "ZImage/ZImage.h"
#include "imagefile/Ifl.h"

void ZImage::Load(const QString& fileName) {
    Z_CHECK(!fileName.isEmpty(), Z_INVALID_PARAMETER);
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    IflBitmap* loaded = nullptr;
    IflFileInformation information;
    const IflError code =
        iflLoadBitmap(ZFileName::encode(fileName).constData(), &loaded, params, &information);
    RaiseIflError(code, fileName, Z_LOCATION, QString::fromStdString(information.report.detail));
    Release();
    bitmap = loaded;
    ownsData = 1;
}
