// Decoding: a picture file, or its bytes in memory, into an IFL bitmap
// record, with its metadata.
//
// OpenImageIO decodes. The record gets 1, 3 or 4 components (grey with alpha
// becomes RGBA, more than four channels keep colour and alpha) and the depth
// the file stores: 8 or 16-bit unsigned, or 32-bit float for anything wider
// or floating. Colour is always handed out unassociated (not multiplied by
// alpha): files that store it associated (TIFF with associated extra samples,
// EXR) are divided back, and the file information says so, so that a save
// can multiply again and the picture keeps its form.
//
// Codes: the file cannot be opened 1; no decoder recognises it 6; a decoder
// recognises it but cannot read it (truncated, corrupt, zero size) 2; more
// than IFL_MAX_PIXELS pixels or no memory 5.
#include "imagefile/Ifl.h"
#include "imagefile/internal/IflDepth.h"
#include "imagefile/internal/IflFormats.h"
#include "imagefile/internal/IflMetadata.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

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

// Undoes associated alpha: colour = stored colour / alpha. Integers are
// rounded, which a save that multiplies again turns back into the stored
// values exactly.
template <typename T>
void unassociate(IflBitmap& b) {
    constexpr bool integer = std::is_integral_v<T>;
    constexpr double full = integer ? double(std::numeric_limits<T>::max()) : 1.0;
    for (int y = 0; y < b.height; ++y) {
        T* p = reinterpret_cast<T*>(b.data + static_cast<std::ptrdiff_t>(y) * b.bytesPerLine);
        for (int x = 0; x < b.width; ++x, p += 4) {
            const double alpha = double(p[3]) / full;
            if (!(alpha > 0.0)) continue; // nothing to divide; the colour is already 0
            for (int c = 0; c < 3; ++c) {
                const double v = double(p[c]) / alpha;
                if constexpr (integer)
                    p[c] = static_cast<T>(std::min(full, std::round(v)));
                else
                    p[c] = static_cast<T>(v);
            }
        }
    }
}

// A decoder's working memory beyond the picture: the rows (and the width)
// of pixels it holds at once, in the file's own layout. A chunk may be as
// large as the picture itself in that layout, or this much where the picture
// is smaller (short, wide pictures of real cameras stay far below).
constexpr std::uint64_t decoderFloorBytes = std::uint64_t{256} << 20;

struct DecoderNeed {
    std::uint64_t rows = 0;
    std::uint64_t width = 0;
    std::uint64_t pixelBytes = 0;
    std::uint64_t pictureBytes = 0;
    std::uint64_t cap = std::numeric_limits<std::uint64_t>::max();

    // Products of header values: saturate rather than wrap.
    std::uint64_t bytes() const {
        const auto b = static_cast<unsigned __int128>(rows) * width * pixelBytes;
        return static_cast<std::uint64_t>(
            std::min<unsigned __int128>(b, std::numeric_limits<std::uint64_t>::max()));
    }
    std::uint64_t limit() const { return std::min(std::max(pictureBytes, decoderFloorBytes), cap); }
    bool fits() const { return bytes() <= limit(); }
    std::string refusal() const {
        return "decoding needs " + std::to_string(bytes() >> 20) + " MiB at once (" +
               std::to_string(rows) + " rows of " + std::to_string(width) +
               " pixels), more than the limit of " + std::to_string(limit() >> 20) +
               " MiB for this picture";
    }
};

// The most an EXR's chunk or tile may take when the file is opened: 256 rows
// of 131072 float RGBA pixels (OpenEXR holds a few such buffers at once).
constexpr std::uint64_t exrOpenCapBytes = std::uint64_t{512} << 20;

std::uint64_t roundUp(std::uint64_t n, std::uint64_t to) {
    return to > 1 ? (n + to - 1) / to * to : n;
}

// OpenImageIO's read_image decodes a chunk of `read_chunk` scanlines at a
// time (whole strips of a TIFF, whole rows of tiles of a tiled file) into a
// buffer of the file's own layout before it converts into ours, however few
// rows the picture has.
DecoderNeed readImageNeed(const OIIO::ImageSpec& spec) {
    DecoderNeed need;
    const auto height = static_cast<std::uint64_t>(spec.height);
    int chunk = 256;
    OIIO::getattribute("read_chunk", chunk);
    need.rows = chunk > 0 ? static_cast<std::uint64_t>(chunk) : height;
    need.width = static_cast<std::uint64_t>(spec.width);
    if (spec.tile_width > 0 && spec.tile_height > 0) {
        need.rows = roundUp(need.rows, static_cast<std::uint64_t>(spec.tile_height));
        need.width = roundUp(need.width, static_cast<std::uint64_t>(spec.tile_width));
    } else if (const int strip = spec.get_int_attribute("tiff:RowsPerStrip", 0); strip > 0) {
        // A single strip is commonly written as "all rows" with any large count.
        need.rows = roundUp(need.rows, std::min(static_cast<std::uint64_t>(strip), height));
    }
    need.pixelBytes = spec.pixel_bytes(true);
    need.pictureBytes = height * spec.scanline_bytes(true);
    return need;
}

// Scanlines that OpenEXR compresses together, by its compression code (none,
// RLE, ZIPS, ZIP, PIZ, PXR24, B44, B44A, DWAA, DWAB); OpenEXR refuses others.
std::uint64_t exrLinesPerChunk(int compression) {
    static constexpr std::uint64_t lines[] = {1, 1, 1, 16, 32, 16, 32, 32, 32, 256};
    return compression >= 0 && compression < 10 ? lines[compression] : 1;
}

// Bytes that OpenEXR reads for a value of a type of fixed size, or -1 when it
// reads the declared size (strings, vectors, types it does not know).
int exrFixedSize(const std::string& type) {
    static const std::pair<const char*, int> sizes[] = {
        {"box2i", 16},      {"box2f", 16},   {"chromaticities", 32},
        {"compression", 1}, {"double", 8},   {"envmap", 1},
        {"float", 4},       {"int", 4},      {"keycode", 28},
        {"lineOrder", 1},   {"m33f", 36},    {"m33d", 72},
        {"m44f", 64},       {"m44d", 128},   {"rational", 8},
        {"tiledesc", 9},    {"timecode", 8}, {"v2i", 8},
        {"v2f", 8},         {"v2d", 16},     {"v3i", 12},
        {"v3f", 12},        {"v3d", 24},     {"deepImageState", 1}};
    for (const auto& [name, size] : sizes)
        if (type == name) return size;
    return -1;
}

// OpenEXR takes the header's word for what it allocates before it reads a
// pixel: an attribute's declared size (a 1 KiB file that declares a 2 GiB
// attribute costs 2 GiB and seconds), and, as it opens a part, one chunk of
// scanlines or one tile for its decompressor (a file of one row four million
// pixels wide costs 16 such rows). The headers are walked first, the way
// OpenEXR reads them (a channel list up to its empty name, a preview by its
// own size, fixed types by their size, the rest by the declared one); a size
// past the end of the file is refused, and so is a chunk out of proportion
// to the part's picture. `head` holds the first bytes of a file of `fileSize`.
IflError exrHeadersFit(const std::uint8_t* head, std::size_t available, std::uint64_t fileSize,
                       std::string& detail) {
    if (available < 8 || head[0] != 0x76 || head[1] != 0x2f || head[2] != 0x31 || head[3] != 0x01)
        return IFL_OK; // not EXR: nothing to say
    const bool multipart = (head[5] & 0x10) != 0;
    std::size_t at = 8;
    auto readName = [&](std::string& out) {
        out.clear();
        while (at < available && head[at] != 0 && out.size() < 256)
            out += static_cast<char>(head[at++]);
        if (at >= available || head[at] != 0) return false;
        ++at;
        return true;
    };
    auto intAt = [&](std::size_t where) {
        return static_cast<std::int32_t>(
            std::uint32_t{head[where]} | std::uint32_t{head[where + 1]} << 8 |
            std::uint32_t{head[where + 2]} << 16 | std::uint32_t{head[where + 3]} << 24);
    };
    auto readInt = [&](std::int64_t& out) {
        if (at + 4 > available) return false;
        out = intAt(at);
        at += 4;
        return true;
    };
    auto tooLarge = [&](const std::string& name, std::int64_t size) {
        detail = "the EXR attribute \"" + name + "\" declares " + std::to_string(size) +
                 " bytes, more than the file holds";
        return IFL_ERROR_FILE_READ;
    };
    for (int header = 0; header < 64; ++header) {
        std::string name, type;
        std::int64_t width = 0, height = 0, tileWidth = 0, tileHeight = 0;
        int compression = 3; // OpenEXR's own default, ZIP, for a header that names none
        std::uint64_t pixelBytes = 0;
        for (;;) {
            if (!readName(name)) return IFL_OK; // past what was read: OpenEXR decides
            if (name.empty()) break;
            std::int64_t size = 0;
            if (!readName(type) || !readInt(size)) return IFL_OK;
            const std::uint64_t left = fileSize - std::min<std::uint64_t>(at, fileSize);
            if (size < 0 || std::uint64_t(size) > left) return tooLarge(name, size);
            if (type == "chlist") {
                std::string channel;
                for (;;) {
                    if (!readName(channel)) return IFL_OK;
                    if (channel.empty()) break;
                    // Pixel type: 0 unsigned int, 1 half, 2 float.
                    if (at + 16 <= available) pixelBytes += intAt(at) == 1 ? 2 : 4;
                    at += 16;
                }
            } else if (type == "preview") {
                std::int64_t previewWidth = 0, previewHeight = 0;
                if (!readInt(previewWidth) || !readInt(previewHeight)) return IFL_OK;
                const std::uint64_t bytes = 4 * std::uint64_t(std::uint32_t(previewWidth)) *
                                            std::uint64_t(std::uint32_t(previewHeight));
                if (bytes > fileSize - std::min<std::uint64_t>(at, fileSize))
                    return tooLarge(name, static_cast<std::int64_t>(bytes));
                at += static_cast<std::size_t>(bytes);
            } else if (const int fixed = exrFixedSize(type); fixed >= 0) {
                // OpenEXR reads the type's size whatever the declared one.
                const bool whole = at + static_cast<std::size_t>(fixed) <= available;
                if (whole && name == "dataWindow" && type == "box2i") {
                    width = std::int64_t{intAt(at + 8)} - intAt(at) + 1;
                    height = std::int64_t{intAt(at + 12)} - intAt(at + 4) + 1;
                } else if (whole && name == "compression" && type == "compression") {
                    compression = head[at];
                } else if (whole && name == "tiles" && type == "tiledesc") {
                    tileWidth = std::uint32_t(intAt(at));
                    tileHeight = std::uint32_t(intAt(at + 4));
                }
                at += static_cast<std::size_t>(fixed);
            } else {
                at += static_cast<std::size_t>(size);
            }
        }
        if (width > 0 && height > 0 && pixelBytes > 0) {
            DecoderNeed need;
            need.pixelBytes = pixelBytes;
            need.pictureBytes = std::uint64_t(width) * std::uint64_t(height) * pixelBytes;
            const bool tiled = tileWidth > 0 && tileHeight > 0;
            need.rows = tiled ? std::uint64_t(tileHeight) : exrLinesPerChunk(compression);
            need.width = tiled ? std::uint64_t(tileWidth) : std::uint64_t(width);
            // OpenEXR allocates this as it opens the part, before the header
            // reaches anyone who could weigh the picture against the memory
            // there is: reading a header must stay cheap whatever it says.
            need.cap = exrOpenCapBytes;
            if (!need.fits()) {
                detail = need.refusal();
                return IFL_ERROR_NO_MEMORY;
            }
        }
        if (!multipart) return IFL_OK;
        if (at < available && head[at] == 0) return IFL_OK; // the empty header ends the list
    }
    return IFL_OK;
}

// Where the bytes come from: a file by its path, or memory.
struct Source {
    const char* path = nullptr;
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
};

// OpenImageIO's memory reader takes any position a decoder seeks to, and a
// damaged EXR line offset table sends it before the start of the buffer,
// where it reads. Positions outside the buffer read nothing instead, as a
// file would at its end.
class BoundedMemReader final : public OIIO::Filesystem::IOMemReader {
public:
    using IOMemReader::IOMemReader;
    bool seek(int64_t offset) override {
        if (offset < 0) return false;
        return IOMemReader::seek(offset);
    }
    size_t pread(void* buf, size_t size, int64_t offset) override {
        if (offset < 0 || offset >= static_cast<int64_t>(m_buf.size())) return 0;
        return IOMemReader::pread(buf, size, offset);
    }
};

// An open decoder with the memory reader it may read through.
struct Opened {
    std::unique_ptr<BoundedMemReader> proxy;
    std::unique_ptr<OIIO::ImageInput> input;
};

// The names that pick a decoder for bytes in memory, tried in this order.
constexpr const char* memoryNames[] = {"memory.jpg", "memory.png",  "memory.tif", "memory.exr",
                                       "memory.hdr", "memory.webp", "memory.bmp", "memory.tga"};

Opened openSource(const Source& source, const OIIO::ImageSpec& config, std::string& detail) {
    Opened opened;
    if (source.path) {
        opened.input = OIIO::ImageInput::open(source.path, &config);
        if (!opened.input) detail = OIIO::geterror();
        return opened;
    }
    for (const char* name : memoryNames) {
        auto proxy =
            std::make_unique<BoundedMemReader>(const_cast<std::uint8_t*>(source.data), source.size);
        // The decoders take the reader from the configuration, at creation.
        OIIO::ImageSpec withProxy = config;
        void* pointer = proxy.get();
        withProxy.attribute("oiio:ioproxy", OIIO::TypeDesc::PTR, &pointer);
        auto input = OIIO::ImageInput::create(name, false, &withProxy, proxy.get());
        if (!input) continue;
        OIIO::ImageSpec spec;
        if (input->open(name, spec, withProxy)) {
            opened.proxy = std::move(proxy);
            opened.input = std::move(input);
            return opened;
        }
        const std::string error = input->geterror();
        if (detail.empty() && !error.empty()) detail = error;
    }
    OIIO::geterror(); // nothing to keep from the attempts that did not fit
    return opened;
}

IflError loadBitmap(const Source& source, IflBitmap** bitmap, const IflLoadParams& params,
                    IflFileInformation* info) {
    try {
        if (source.path) {
            // The decoders say little about a file they cannot open; ask the
            // system first, so that a missing or forbidden file is named as such.
            FileDescriptor fd(::open(source.path, O_RDONLY | O_CLOEXEC));
            if (fd.get() < 0) return fail(info, IFL_ERROR_FILE_OPEN, std::strerror(errno));
            struct stat st {};
            if (::fstat(fd.get(), &st) != 0)
                return fail(info, IFL_ERROR_FILE_OPEN, std::strerror(errno));
            if (S_ISDIR(st.st_mode)) return fail(info, IFL_ERROR_FILE_OPEN, "it is a folder");
            if (!S_ISREG(st.st_mode)) return fail(info, IFL_ERROR_FILE_OPEN, "not a regular file");
            if (st.st_size == 0) return fail(info, IFL_ERROR_UNKNOWN_FORMAT, "the file is empty");
            std::vector<std::uint8_t> head(std::min<std::uint64_t>(st.st_size, 1 << 20));
            const ssize_t got = ::pread(fd.get(), head.data(), head.size(), 0);
            std::string detail;
            if (got > 0)
                if (const IflError code =
                        exrHeadersFit(head.data(), static_cast<std::size_t>(got),
                                      static_cast<std::uint64_t>(st.st_size), detail);
                    code != IFL_OK)
                    return fail(info, code, detail);
        } else {
            std::string detail;
            if (const IflError code = exrHeadersFit(source.data, source.size, source.size, detail);
                code != IFL_OK)
                return fail(info, code, detail);
        }

        OIIO::ImageSpec config;
        config.attribute("oiio:UnassociatedAlpha", 1);
        std::string openError;
        Opened opened = openSource(source, config, openError);
        if (!opened.input) {
            const bool claimed = source.path ? someDecoderClaims(source.path) : !openError.empty();
            const IflError code = claimed ? IFL_ERROR_FILE_READ : IFL_ERROR_UNKNOWN_FORMAT;
            return fail(info, code, openError.empty() ? "no decoder reads this file" : openError);
        }
        OIIO::ImageInput& input = *opened.input;
        const OIIO::ImageSpec& spec = input.spec();
        if (spec.width <= 0 || spec.height <= 0 || spec.depth > 1 || spec.nchannels <= 0)
            return fail(info, IFL_ERROR_FILE_READ, "the picture has no pixels or is a volume");
        const std::int64_t pixels = std::int64_t{spec.width} * spec.height;
        if (pixels > IFL_MAX_PIXELS)
            return fail(info, IFL_ERROR_NO_MEMORY,
                        "the header gives " + std::to_string(spec.width) + " x " +
                            std::to_string(spec.height) +
                            " pixels, more than the limit of one gigapixel");

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

        const std::string codec = input.format_name();
        // TIFF says per file whether its alpha is associated; EXR always is.
        const bool associated = components == 4 && (codec == "tiff" || codec == "openexr") &&
                                spec.get_int_attribute("oiio:UnassociatedAlpha", 0) == 0;
        const bool halfFloat = spec.format.basetype == OIIO::TypeDesc::HALF;

        const int type = components == 1 ? 2 : components == 3 ? 16 : 32;
        const int bytesPerPixel = bits / 8 * components;
        const std::int64_t stride = (std::int64_t{bytesPerPixel} * spec.width + 3) / 4 * 4;
        if (stride > std::numeric_limits<std::int32_t>::max())
            return fail(info, IFL_ERROR_NO_MEMORY, "a line of the picture exceeds 2 GiB");

        // Before any read, and for a header alone too, so that a caller
        // that checks a file first learns it cannot be read.
        if (const DecoderNeed need = readImageNeed(spec); !need.fits())
            return fail(info, IFL_ERROR_NO_MEMORY, need.refusal());

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
            if (!b.data)
                return fail(info, IFL_ERROR_NO_MEMORY,
                            "no memory for the " + std::to_string(bytes / (1024 * 1024)) +
                                " MiB of pixels");
            const bool ok = input.read_image(0, 0, 0, readChannels, ifl::typeOfDepth(bits), b.data,
                                             bytesPerPixel, b.bytesPerLine);
            if (!ok || input.has_error()) {
                std::string detail = input.geterror();
                return fail(info, IFL_ERROR_FILE_READ,
                            detail.empty() ? "the pixels cannot be decoded" : detail);
            }
            ifl::withComponentType(bits, [&](auto zero) {
                using T = decltype(zero);
                if (spec.nchannels == 2) spreadGreyAlpha<T>(b);
                if (associated) unassociate<T>(b);
            });
        }

        if (params.flags & IFL_LOAD_METADATA) {
            IflMetadata metadata;
            if (source.path)
                ifl::readMetadata([&] { return Exiv2::ImageFactory::open(source.path, false); },
                                  spec, metadata, warnings);
            else
                ifl::readMetadata(
                    [&] {
                        return Exiv2::ImageFactory::open(source.data,
                                                         static_cast<long>(source.size));
                    },
                    spec, metadata, warnings);
            if (!metadata.empty()) ifl::ensureMetadata(&b) = std::move(metadata);
        }
        input.close();

        if (info) {
            const ifl::FormatInfo* format = ifl::formatByCodec(codec);
            info->formatName = format ? std::string(format->name) : codec;
            info->formatIndex = format ? format->index : IFL_FORMAT_UNKNOWN;
            info->width = spec.width;
            info->height = spec.height;
            info->channels = spec.nchannels;
            info->bitsPerComponent = bits;
            info->halfFloat = halfFloat;
            info->associatedAlpha = associated;
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
    if (info) iflFreeFileInformation(info);
    if (!bitmap) return fail(info, IFL_ERROR_BAD_PARAMETERS, "no place for the bitmap");
    *bitmap = nullptr;
    if (!path || !*path) return fail(info, IFL_ERROR_BAD_PARAMETERS, "no file name");
    if (info) info->report.path = path;
    Source source;
    source.path = path;
    return loadBitmap(source, bitmap, params, info);
}

IflError iflLoadBitmapFromMemory(const std::uint8_t* data, std::size_t size, IflBitmap** bitmap,
                                 const IflLoadParams& params, IflFileInformation* info) {
    if (info) iflFreeFileInformation(info);
    if (!bitmap) return fail(info, IFL_ERROR_BAD_PARAMETERS, "no place for the bitmap");
    *bitmap = nullptr;
    if (!data && size > 0) return fail(info, IFL_ERROR_BAD_PARAMETERS, "no bytes");
    if (size == 0) return fail(info, IFL_ERROR_UNKNOWN_FORMAT, "no bytes to decode");
    Source source;
    source.data = data;
    source.size = size;
    return loadBitmap(source, bitmap, params, info);
}
