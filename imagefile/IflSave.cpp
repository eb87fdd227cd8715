// Encoding: an IFL bitmap record into a picture file, with its metadata.
//
// The picture is encoded in memory by OpenImageIO, Exiv2 writes the metadata
// into those bytes, and only then is a file made: under a temporary name in
// the target folder, flushed to the disk, and renamed over the target. So a
// failure at any step, a full disk included, leaves the target as it was (or
// absent) and no partial or empty file anywhere.
//
// Codes: bad arguments 50; a record without pixels, of a depth or component
// count the format cannot hold 7; unknown format index 10; the file cannot be
// made in the target folder 3; encoding or writing fails 4; no memory 5.
#include "imagefile/Ifl.h"
#include "imagefile/internal/IflFormats.h"
#include "imagefile/internal/IflMetadata.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct Failure {
    IflError code;
    std::string detail;
};

// A file under a temporary name that is removed unless it was renamed.
class TemporaryFile {
public:
    TemporaryFile() = default;
    ~TemporaryFile() {
        if (fd >= 0) ::close(fd);
        if (!name.empty()) ::unlink(name.c_str());
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Makes a new file beside `target`; mode 0666 less the umask, as any new file.
    bool create(const std::filesystem::path& target) {
        static std::atomic<unsigned> counter{0};
        const std::filesystem::path folder =
            target.parent_path().empty() ? "." : target.parent_path();
        for (int attempt = 0; attempt < 100; ++attempt) {
            const auto tick = std::chrono::steady_clock::now().time_since_epoch().count();
            std::string leaf = ".";
            leaf += target.filename().string();
            for (const long long part :
                 {static_cast<long long>(::getpid()), static_cast<long long>(counter++),
                  static_cast<long long>(tick % 100000)}) {
                leaf += '.';
                leaf += std::to_string(part);
            }
            leaf += ".part";
            const std::string candidate = (folder / leaf).string();
            fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                name = candidate;
                return true;
            }
            if (errno != EEXIST) return false;
        }
        return false;
    }

    bool write(const std::uint8_t* data, std::size_t size) {
        while (size > 0) {
            const ssize_t n = ::write(fd, data, size);
            if (n < 0) {
                if (errno == EINTR) continue;
                return false;
            }
            if (n == 0) {
                errno = ENOSPC;
                return false;
            }
            data += n;
            size -= static_cast<std::size_t>(n);
        }
        return true;
    }

    // Flushes and closes; a full disk may only show here.
    bool finish() {
        const bool synced = ::fsync(fd) == 0;
        const int syncError = errno;
        const bool closed = ::close(fd) == 0;
        fd = -1;
        if (!synced) errno = syncError;
        return synced && closed;
    }

    bool renameTo(const std::string& target) {
        if (::rename(name.c_str(), target.c_str()) != 0) return false;
        name.clear();
        return true;
    }

    int descriptor() const { return fd; }

private:
    int fd = -1;
    std::string name;
};

std::string systemError(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

// The encoder's compression setting for a compression word.
std::string compressionOf(const ifl::FormatInfo& format, std::uint16_t word) {
    switch (format.index) {
    case IFL_FORMAT_PNG:
        return "zip:" + std::to_string(word == IFL_DEFAULT_WORD ? 6 : std::min<int>(word, 9));
    case IFL_FORMAT_TIFF:
        switch (word) {
        case 0:
            return "none";
        case 1:
            return "packbits";
        case 4:
            return "zip";
        default:
            return "lzw";
        }
    case IFL_FORMAT_EXR: {
        static constexpr const char* codes[] = {"none",  "rle", "zips", "zip",  "piz",
                                                "pxr24", "b44", "b44a", "dwaa", "dwab"};
        return word < std::size(codes) ? codes[word] : "zip";
    }
    default:
        return {};
    }
}

int qualityOf(std::uint16_t word) {
    if (word == IFL_DEFAULT_WORD) return 95;
    return std::clamp<int>(word, 1, 100);
}

OIIO::TypeDesc typeOfDepth(int bits) {
    return bits == 8    ? OIIO::TypeDesc::UINT8
           : bits == 16 ? OIIO::TypeDesc::UINT16
                        : OIIO::TypeDesc::FLOAT;
}

// Copies grey pixels into RGB, for formats without a grey form.
std::vector<std::uint8_t> greyToRgb(const IflBitmap& b) {
    const std::size_t component = b.bitsPerComponent / 8;
    const std::size_t line = component * 3 * static_cast<std::size_t>(b.width);
    std::vector<std::uint8_t> rgb(line * static_cast<std::size_t>(b.height));
    for (int y = 0; y < b.height; ++y) {
        const std::uint8_t* in = b.data + static_cast<std::ptrdiff_t>(y) * b.bytesPerLine;
        std::uint8_t* out = rgb.data() + line * static_cast<std::size_t>(y);
        for (int x = 0; x < b.width; ++x, in += component)
            for (int c = 0; c < 3; ++c, out += component)
                std::memcpy(out, in, component);
    }
    return rgb;
}

// Checks that the target can be made or replaced, before any work is done.
void checkTarget(const std::filesystem::path& target) {
    const std::filesystem::path folder = target.parent_path().empty() ? "." : target.parent_path();
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0)
        throw Failure{IFL_ERROR_FILE_CREATE, systemError(folder.c_str())};
    if (!S_ISDIR(st.st_mode))
        throw Failure{IFL_ERROR_FILE_CREATE, folder.string() + " is not a folder"};
    if (::stat(target.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode))
            throw Failure{IFL_ERROR_FILE_CREATE, target.string() + " is a folder"};
        // An existing file that may not be written is not replaced either.
        const int fd = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
        if (fd < 0) throw Failure{IFL_ERROR_FILE_CREATE, systemError(target.c_str())};
        ::close(fd);
    }
}

std::vector<std::uint8_t> encode(const char* path, const IflBitmap& b,
                                 const ifl::FormatInfo& format, const IflSaveParams& params,
                                 const IflMetadata* metadata, std::vector<std::string>& warnings) {
    int channels = b.componentsPerPixel;
    const std::uint8_t* pixels = b.data;
    OIIO::stride_t xstride = b.bytesPerPixel;
    OIIO::stride_t ystride = b.bytesPerLine;
    std::vector<std::uint8_t> expanded;
    if (channels == 4 && !format.alpha) {
        channels = 3; // the alpha component is skipped by the stride
        warnings.push_back(std::string(format.name) + " holds no alpha channel; it was dropped");
    } else if (channels == 1 && !format.grey) {
        expanded = greyToRgb(b);
        channels = 3;
        pixels = expanded.data();
        xstride = 3 * (b.bitsPerComponent / 8);
        ystride = xstride * b.width;
    }

    OIIO::ImageSpec spec(b.width, b.height, channels, typeOfDepth(b.bitsPerComponent));
    if (channels == 4) {
        spec.alpha_channel = 3;
        spec.attribute("oiio:UnassociatedAlpha", 1);
    }
    if (const std::string compression = compressionOf(format, params.compression);
        !compression.empty())
        spec.attribute("compression", compression);
    if (format.index == IFL_FORMAT_JPEG || format.index == IFL_FORMAT_WEBP) {
        const int quality = qualityOf(params.quality);
        spec.attribute("compression", std::string(format.codec) + ":" + std::to_string(quality));
        spec.attribute("CompressionQuality", quality);
    }
    if (format.index == IFL_FORMAT_PNG && params.compression != IFL_DEFAULT_WORD)
        spec.attribute("png:compressionLevel", std::min<int>(params.compression, 9));

    const bool withIcc = (params.flags & IFL_SAVE_ICC_PROFILE) != 0;
    if (metadata && !format.exiv2) {
        if (format.index == IFL_FORMAT_EXR) {
            // The EXR encoder has no place for a profile.
            if (withIcc && !metadata->icc.empty())
                warnings.push_back("exr files hold no ICC profile; it was dropped");
            ifl::metadataToAttributes(*metadata, false, spec);
        } else if (!metadata->empty())
            warnings.push_back(std::string(format.name) +
                               " files hold no profile or photo metadata; they were dropped");
    }

    std::vector<std::uint8_t> bytes;
    OIIO::Filesystem::IOVecOutput proxy(bytes);
    auto output = OIIO::ImageOutput::create(format.codec);
    if (!output) throw Failure{IFL_ERROR_UNKNOWN_FORMAT, OIIO::geterror()};
    if (!output->set_ioproxy(&proxy)) throw Failure{IFL_ERROR_FILE_WRITE, output->geterror()};
    if (!output->open(path, spec)) throw Failure{IFL_ERROR_FILE_WRITE, output->geterror()};
    if (!output->write_image(typeOfDepth(b.bitsPerComponent), pixels, xstride, ystride))
        throw Failure{IFL_ERROR_FILE_WRITE, output->geterror()};
    if (!output->close()) throw Failure{IFL_ERROR_FILE_WRITE, output->geterror()};
    output.reset();

    if (metadata && format.exiv2)
        ifl::embedMetadata(bytes, *metadata, withIcc, format.metadataKinds,
                           format.index == IFL_FORMAT_TIFF, format.name, warnings);
    return bytes;
}

void writeFile(const std::filesystem::path& target, const std::vector<std::uint8_t>& bytes) {
    TemporaryFile file;
    if (!file.create(target))
        throw Failure{IFL_ERROR_FILE_CREATE, systemError(target.parent_path().c_str())};
    // A replaced file keeps its permissions.
    struct stat st {};
    if (::stat(target.c_str(), &st) == 0) ::fchmod(file.descriptor(), st.st_mode & 07777);
    if (!file.write(bytes.data(), bytes.size()))
        throw Failure{IFL_ERROR_FILE_WRITE, systemError(target.c_str())};
    if (!file.finish()) throw Failure{IFL_ERROR_FILE_WRITE, systemError(target.c_str())};
    if (!file.renameTo(target.string()))
        throw Failure{IFL_ERROR_FILE_WRITE, systemError(target.c_str())};
}

} // namespace

IflError iflGetDefaultSaveParams(IflSaveParams& params) {
    params = IflSaveParams{};
    return IFL_OK;
}

IflError iflSaveBitmap(const char* path, const IflBitmap* bitmap, const IflSaveParams& params,
                       IflReport* report) {
    std::vector<std::string> warnings;
    auto finish = [&](IflError code, std::string detail) {
        if (report) {
            report->path = path ? path : "";
            report->detail = std::move(detail);
            report->warnings = std::move(warnings);
        }
        return code;
    };
    if (!path || !*path || !bitmap)
        return finish(IFL_ERROR_BAD_PARAMETERS, "no file name or no bitmap");

    const IflBitmap& b = *bitmap;
    const int bits = b.bitsPerComponent;
    const int components = b.componentsPerPixel;
    if (!b.data || b.width <= 0 || b.height <= 0 || (bits != 8 && bits != 16 && bits != 32) ||
        (components != 1 && components != 3 && components != 4) ||
        b.bytesPerPixel != bits / 8 * components ||
        std::int64_t{b.bytesPerLine} < std::int64_t{b.bytesPerPixel} * b.width)
        return finish(IFL_ERROR_BAD_BITMAP, "the bitmap has no pixels or an inconsistent layout");

    const ifl::FormatInfo* format = ifl::formatByIndex(params.formatIndex);
    if (!format)
        return finish(IFL_ERROR_BAD_FORMAT_INDEX,
                      "format index " + std::to_string(params.formatIndex) + " is not known");
    if (!(format->depths & ifl::depthBit(bits)))
        return finish(IFL_ERROR_BAD_BITMAP, std::string(format->name) + " files do not hold " +
                                                std::to_string(bits) + "-bit components");

    try {
        const std::filesystem::path target(path);
        checkTarget(target);
        const std::vector<std::uint8_t> bytes =
            encode(path, b, *format, params, ifl::metadataOf(bitmap), warnings);
        writeFile(target, bytes);
        return finish(IFL_OK, {});
    } catch (const Failure& failure) {
        return finish(failure.code, failure.detail);
    } catch (const std::bad_alloc&) {
        return finish(IFL_ERROR_NO_MEMORY, "out of memory");
    } catch (const std::exception& e) {
        return finish(IFL_ERROR_FILE_WRITE, e.what());
    }
}
