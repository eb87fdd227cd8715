// Decoding: a picture file into an IFL bitmap record, with its metadata.
//
// OpenImageIO decodes. The record gets 1, 3 or 4 components (grey with alpha
// becomes RGBA, more than four channels keep colour and alpha) and the depth
// the file stores: 8 or 16-bit unsigned, or 32-bit float for anything wider
// or floating. Alpha is read as stored, never multiplied into the colour, so
// that a picture written back holds the values it was read with.
//
// Codes: the file cannot be opened 1; no decoder recognises it 6; a decoder
// recognises it but cannot read it (truncated, corrupt, zero size) 2; more
// than IFL_MAX_PIXELS pixels or no memory 5.
#include "imagefile/Ifl.h"
#include "imagefile/internal/IflFormats.h"
#include "imagefile/internal/IflMetadata.h"

#include <OpenImageIO/imageio.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Closes a file descriptor when it goes out of scope.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd(fd) {}
    ~FileDescriptor() {
        if (fd >= 0) ::close(fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd; }

private:
    int fd;
};

int depthOf(OIIO::TypeDesc format) {
    switch (format.basetype) {
    case OIIO::TypeDesc::UINT8:
    case OIIO::TypeDesc::INT8:
        return 8;
    case OIIO::TypeDesc::UINT16:
    case OIIO::TypeDesc::INT16:
        return 16;
    default:
        return 32;
    }
}

OIIO::TypeDesc typeOfDepth(int bits) {
    return bits == 8    ? OIIO::TypeDesc::UINT8
           : bits == 16 ? OIIO::TypeDesc::UINT16
                        : OIIO::TypeDesc::FLOAT;
}

// Grey and alpha were read into the first two of four components; spread the
// grey over the three colour components and move alpha to the fourth.
template <typename T>
void spreadGreyAlpha(IflBitmap& b) {
    for (int y = 0; y < b.height; ++y) {
        T* p = reinterpret_cast<T*>(b.data + static_cast<std::ptrdiff_t>(y) * b.bytesPerLine);
        for (int x = 0; x < b.width; ++x, p += 4) {
            const T alpha = p[1];
            p[1] = p[0];
            p[2] = p[0];
            p[3] = alpha;
        }
    }
}

// No decoder could open the file: is it damaged, or is it no picture at all?
bool someDecoderClaims(const std::string& path) {
    std::vector<std::string> codecs =
        OIIO::Strutil::splits(OIIO::get_string_attribute("input_format_list"), ",");
    for (const std::string& codec : codecs) {
        // These accept anything, or are no picture formats.
        if (codec == "null" || codec == "term") continue;
        auto input = OIIO::ImageInput::create(codec);
        if (input && input->valid_file(path)) return true;
    }
    return false;
}

IflError fail(IflFileInformation* info, IflError code, std::string detail) {
    if (info) info->report.detail = std::move(detail);
    return code;
}

} // namespace

IflError iflGetDefaultLoadParams(IflLoadParams& params) {
    params = IflLoadParams{};
    return IFL_OK;
}

void iflFreeFileInformation(IflFileInformation* information) {
    if (information) *information = IflFileInformation{};
}

IflError iflLoadBitmap(const char* path, IflBitmap** bitmap, const IflLoadParams& params,
                       IflFileInformation* info) {
    if (!bitmap) return fail(info, IFL_ERROR_BAD_PARAMETERS, "no place for the bitmap");
    *bitmap = nullptr;
    if (!path || !*path) return fail(info, IFL_ERROR_BAD_PARAMETERS, "no file name");
    if (info) {
        iflFreeFileInformation(info);
        info->report.path = path;
    }

    try {
        // The decoders say little about a file they cannot open; ask the
        // system first, so that a missing or forbidden file is named as such.
        {
            FileDescriptor fd(::open(path, O_RDONLY | O_CLOEXEC));
            if (fd.get() < 0) return fail(info, IFL_ERROR_FILE_OPEN, std::strerror(errno));
            struct stat st {};
            if (::fstat(fd.get(), &st) != 0)
                return fail(info, IFL_ERROR_FILE_OPEN, std::strerror(errno));
            if (!S_ISREG(st.st_mode)) return fail(info, IFL_ERROR_FILE_OPEN, "not a regular file");
        }

        OIIO::ImageSpec config;
        config.attribute("oiio:UnassociatedAlpha", 1);
        auto input = OIIO::ImageInput::open(path, &config);
        if (!input) {
            std::string detail = OIIO::geterror();
            const IflError code =
                someDecoderClaims(path) ? IFL_ERROR_FILE_READ : IFL_ERROR_UNKNOWN_FORMAT;
            return fail(info, code, detail.empty() ? "no decoder reads this file" : detail);
        }
        const OIIO::ImageSpec& spec = input->spec();
        if (spec.width <= 0 || spec.height <= 0 || spec.depth > 1 || spec.nchannels <= 0)
            return fail(info, IFL_ERROR_FILE_READ, "the picture has no pixels or is a volume");
        const std::int64_t pixels = std::int64_t{spec.width} * spec.height;
        if (pixels > IFL_MAX_PIXELS)
            return fail(info, IFL_ERROR_NO_MEMORY,
                        "the picture has " + std::to_string(spec.width) + " x " +
                            std::to_string(spec.height) + " pixels, more than IFL reads");

        const int bits = depthOf(spec.format);
        int components = 0;
        int readChannels = 0;
        std::vector<std::string> warnings;
        if (spec.nchannels == 1) {
            components = readChannels = 1;
        } else if (spec.nchannels == 2) {
            components = 4;
            readChannels = 2;
        } else if (spec.nchannels == 3) {
            components = readChannels = 3;
        } else if (spec.nchannels == 4 || spec.alpha_channel == 3) {
            components = readChannels = 4;
        } else {
            components = readChannels = 3;
        }
        if (spec.nchannels > 4 || (spec.nchannels == 4 && components == 3))
            warnings.push_back("channels beyond colour and alpha were not read");

        const int type = components == 1 ? 2 : components == 3 ? 16 : 32;
        const int bytesPerPixel = bits / 8 * components;
        const std::int64_t stride = (std::int64_t{bytesPerPixel} * spec.width + 3) / 4 * 4;
        if (stride > std::numeric_limits<std::int32_t>::max())
            return fail(info, IFL_ERROR_NO_MEMORY, "a line of the picture exceeds 2 GiB");

        IflBitmapPtr record(
            static_cast<IflBitmap*>(iflAllocZeroed(sizeof(IflBitmap), "iflLoadBitmap")));
        if (!record) return fail(info, IFL_ERROR_NO_MEMORY, "no memory for the bitmap record");
        IflBitmap& b = *record;
        b.type = static_cast<std::uint16_t>(type);
        b.width = spec.width;
        b.height = spec.height;
        b.bytesPerLine = static_cast<std::int32_t>(stride);
        b.linePadding = 4;
        b.bitsPerComponent = static_cast<std::uint16_t>(bits);
        b.componentsPerPixel = static_cast<std::uint16_t>(components);
        b.bytesPerPixel = static_cast<std::uint16_t>(bytesPerPixel);
        b.transparentIndex = 65535;
        b.coloursUsed = type == 2 ? 256 : 0;

        if (!(params.flags & IFL_LOAD_HEADER_ONLY)) {
            const std::size_t bytes =
                static_cast<std::size_t>(stride) * static_cast<std::size_t>(spec.height);
            b.data = static_cast<std::uint8_t*>(iflAlloc(bytes, "iflLoadBitmap"));
            if (!b.data) return fail(info, IFL_ERROR_NO_MEMORY, "no memory for the pixels");
            const bool ok = input->read_image(0, 0, 0, readChannels, typeOfDepth(bits), b.data,
                                              bytesPerPixel, b.bytesPerLine);
            if (!ok || input->has_error()) {
                std::string detail = input->geterror();
                return fail(info, IFL_ERROR_FILE_READ,
                            detail.empty() ? "the pixels cannot be decoded" : detail);
            }
            if (spec.nchannels == 2) {
                if (bits == 8)
                    spreadGreyAlpha<std::uint8_t>(b);
                else if (bits == 16)
                    spreadGreyAlpha<std::uint16_t>(b);
                else
                    spreadGreyAlpha<float>(b);
            }
        }

        const std::string codec = input->format_name();
        if (params.flags & IFL_LOAD_METADATA) {
            IflMetadata metadata;
            ifl::readMetadata(path, spec, metadata, warnings);
            if (!metadata.empty()) ifl::ensureMetadata(&b) = std::move(metadata);
        }
        input->close();

        if (info) {
            const ifl::FormatInfo* format = ifl::formatByCodec(codec);
            info->formatName = format ? std::string(format->name) : codec;
            info->formatIndex = format ? format->index : IFL_FORMAT_UNKNOWN;
            info->width = spec.width;
            info->height = spec.height;
            info->channels = spec.nchannels;
            info->bitsPerComponent = bits;
            info->report.warnings = std::move(warnings);
        }
        *bitmap = record.release();
        return IFL_OK;
    } catch (const std::bad_alloc&) {
        return fail(info, IFL_ERROR_NO_MEMORY, "out of memory");
    } catch (const std::exception& e) {
        return fail(info, IFL_ERROR_FILE_READ, e.what());
    }
}
