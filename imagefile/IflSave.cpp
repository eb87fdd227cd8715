// Encoding: an IFL bitmap record into a picture file, with its metadata.
//
// The picture is encoded in memory by OpenImageIO, Exiv2 writes the metadata
// into those bytes, and only then is a file made: nameless in the target
// folder (O_TMPFILE), flushed to the disk, then linked under a hidden name and
// renamed over the target. So a failure at any step, a full disk or a
// file-size limit included, leaves the target as it was (or absent) and no
// partial or empty file anywhere; a process killed while writing leaves
// nothing either, since a nameless file disappears with it. Where the file
// system has no nameless files the hidden name is used from the start, and
// iflRemoveTemporaryFiles lets a signal handler remove it.
//
// Codes: bad arguments 50; a record without pixels, of a depth or component
// count the format cannot hold 7; unknown format index 10; the file cannot be
// made in the target folder 3; encoding or writing fails 4; no memory 5.
#include "imagefile/Ifl.h"
#include "imagefile/internal/IflDepth.h"
#include "imagefile/internal/IflFormats.h"
#include "imagefile/internal/IflMetadata.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

namespace {

struct Failure {
    IflError code;
    std::string detail;
};

// Names of temporary files that exist right now, for iflRemoveTemporaryFiles
// to remove from a signal handler: fixed slots, no allocation, a slot's name
// complete before it is marked in use.
constexpr int kSlots = 16;
struct TemporarySlot {
    std::atomic<int> state{0}; // 0 free, 1 being filled or emptied, 2 names a file
    char name[PATH_MAX];
};
TemporarySlot temporarySlots[kSlots];

// A save's file while it is written: nameless where the file system allows
// (so that nothing can be left behind, whatever ends the process), else a
// hidden name beside the target, removed unless it became the target.
class TemporaryFile {
public:
    TemporaryFile() = default;
    ~TemporaryFile() {
        if (fd >= 0) ::close(fd);
        if (!name.empty()) ::unlink(name.c_str());
        release();
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    // Makes the file in the target's folder; mode 0666 less the umask.
    bool create(const std::filesystem::path& target) {
        folder = target.parent_path().empty() ? "." : target.parent_path();
        fd = ::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
        if (fd >= 0 && ::access("/proc/self/fd", X_OK) == 0) return true;
        if (fd >= 0) ::close(fd);
        fd = -1;
        // No nameless files here (or no /proc to name one by): a hidden name.
        for (int attempt = 0; attempt < 100; ++attempt) {
            const std::string candidate = hiddenName(target);
            if (!hold(candidate)) return false;
            fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (fd >= 0) {
                name = candidate;
                return true;
            }
            const int error = errno;
            release();
            errno = error;
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

    // Flushes to the disk; a full disk may only show here.
    bool flush() { return ::fsync(fd) == 0; }

    // Gives the file the target's name, replacing what was there.
    bool commit(const std::filesystem::path& target) {
        if (name.empty()) {
            // A nameless file gets a hidden name first (a link cannot
            // replace), then the rename puts it in place in one step.
            const std::string proc = "/proc/self/fd/" + std::to_string(fd);
            for (int attempt = 0;; ++attempt) {
                const std::string candidate = hiddenName(target);
                if (!hold(candidate)) return false;
                if (::linkat(AT_FDCWD, proc.c_str(), AT_FDCWD, candidate.c_str(),
                             AT_SYMLINK_FOLLOW) == 0) {
                    name = candidate;
                    break;
                }
                const int error = errno;
                release();
                errno = error;
                if (errno != EEXIST || attempt == 100) return false;
            }
        }
        const bool closed = ::close(fd) == 0;
        fd = -1;
        if (!closed) return false;
        if (::rename(name.c_str(), target.c_str()) != 0) return false;
        name.clear();
        release();
        return true;
    }

    int descriptor() const { return fd; }

private:
    std::string hiddenName(const std::filesystem::path& target) const {
        static std::atomic<unsigned> counter{0};
        std::string leaf = ".";
        leaf += target.filename().string();
        for (const long long part :
             {static_cast<long long>(::getpid()), static_cast<long long>(counter++)}) {
            leaf += '.';
            leaf += std::to_string(part);
        }
        leaf += ".part";
        return (folder / leaf).string();
    }

    // Publishes the name for the signal handlers before the file exists.
    bool hold(const std::string& candidate) {
        if (candidate.size() >= PATH_MAX) {
            errno = ENAMETOOLONG;
            return false;
        }
        for (int i = 0; i < kSlots; ++i) {
            int expected = 0;
            if (temporarySlots[i].state.compare_exchange_strong(expected, 1)) {
                std::memcpy(temporarySlots[i].name, candidate.c_str(), candidate.size() + 1);
                temporarySlots[i].state.store(2);
                slot = i;
                return true;
            }
        }
        errno = EBUSY; // more saves at once than slots
        return false;
    }

    void release() {
        if (slot < 0) return;
        temporarySlots[slot].state.store(1);
        temporarySlots[slot].name[0] = '\0';
        temporarySlots[slot].state.store(0);
        slot = -1;
    }

    std::filesystem::path folder;
    int fd = -1;
    std::string name;
    int slot = -1;
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

// The colour multiplied by alpha, for files that store it associated; the
// copy has the bitmap's layout without line padding.
template <typename T>
std::vector<std::uint8_t> associatedCopy(const IflBitmap& b) {
    constexpr bool integer = std::is_integral_v<T>;
    constexpr double full = integer ? double(std::numeric_limits<T>::max()) : 1.0;
    const std::size_t line = std::size_t{b.bytesPerPixel} * static_cast<std::size_t>(b.width);
    std::vector<std::uint8_t> out(line * static_cast<std::size_t>(b.height));
    for (int y = 0; y < b.height; ++y) {
        const T* in =
            reinterpret_cast<const T*>(b.data + static_cast<std::ptrdiff_t>(y) * b.bytesPerLine);
        T* o = reinterpret_cast<T*>(out.data() + line * static_cast<std::size_t>(y));
        for (int x = 0; x < b.width; ++x, in += 4, o += 4) {
            const double alpha = double(in[3]) / full;
            for (int c = 0; c < 3; ++c) {
                const double v = double(in[c]) * alpha;
                if constexpr (integer)
                    o[c] = static_cast<T>(std::min(full, std::round(v)));
                else
                    o[c] = static_cast<T>(v);
            }
            o[3] = in[3];
        }
    }
    return out;
}

// The photograph's resolution (EXIF's XResolution, YResolution and
// ResolutionUnit) as encoder attributes: a TIFF's own directory and a PNG's
// pHYs chunk are written by the encoder, not by Exiv2.
void resolutionToAttributes(const IflMetadata& metadata, OIIO::ImageSpec& spec) {
    const auto x = metadata.exif.findKey(Exiv2::ExifKey("Exif.Image.XResolution"));
    const auto y = metadata.exif.findKey(Exiv2::ExifKey("Exif.Image.YResolution"));
    if (x == metadata.exif.end() || y == metadata.exif.end() || x->count() == 0 || y->count() == 0)
        return;
    const float xr = x->toFloat(0), yr = y->toFloat(0);
    if (!(xr > 0.0f) || !(yr > 0.0f)) return;
    spec.attribute("XResolution", xr);
    spec.attribute("YResolution", yr);
    const auto unit = metadata.exif.findKey(Exiv2::ExifKey("Exif.Image.ResolutionUnit"));
    const long code = unit != metadata.exif.end() && unit->count() > 0 ? unit->toLong(0) : 2;
    spec.attribute("ResolutionUnit", code == 3 ? "cm" : code == 1 ? "none" : "in");
}

// One picture's encoding into bytes in memory. The rows go to the encoder in
// order, as many at a time as the caller has complete, so that a caller who
// makes the picture band by band can have it encoded while the rest is still
// being made; the metadata goes into the bytes at the end. A picture that
// needs a whole-image copy first (grey for a format without grey, colour
// multiplied by alpha) is encoded in one piece at the end instead.
class Encoder {
public:
    Encoder(const char* path, const IflBitmap& b, const ifl::FormatInfo& format,
            const IflSaveParams& params, const IflMetadata* metadata,
            std::vector<std::string>& warnings)
        : m_bitmap(b), m_format(format), m_metadata(metadata), m_warnings(warnings),
          m_withIcc((params.flags & IFL_SAVE_ICC_PROFILE) != 0), m_proxy(m_bytes) {
        int channels = b.componentsPerPixel;
        if (channels == 4 && !format.alpha) {
            channels = 3; // the alpha component is skipped by the stride
            warnings.push_back(std::string(format.name) +
                               " holds no alpha channel; it was dropped");
        } else if (channels == 1 && !format.grey) {
            m_wholeCopy = WholeCopy::GreyToRgb;
            channels = 3;
            m_xstride = 3 * (b.bitsPerComponent / 8);
            m_ystride = m_xstride * b.width;
        }

        // Half floats where the source had them and the format holds them.
        const bool half = b.bitsPerComponent == 32 && (params.flags & IFL_SAVE_HALF_FLOAT) &&
                          (format.index == IFL_FORMAT_EXR || format.index == IFL_FORMAT_TIFF);
        OIIO::ImageSpec spec(b.width, b.height, channels,
                             half ? OIIO::TypeDesc(OIIO::TypeDesc::HALF)
                                  : ifl::typeOfDepth(b.bitsPerComponent));
        if (channels == 4) {
            spec.alpha_channel = 3;
            // EXR always stores colour multiplied by alpha; a TIFF does when its
            // source did. The bitmap holds it unassociated, as IFL loads it.
            const bool associate =
                format.index == IFL_FORMAT_EXR ||
                (format.index == IFL_FORMAT_TIFF && (params.flags & IFL_SAVE_ASSOCIATED_ALPHA));
            spec.attribute("oiio:UnassociatedAlpha", associate ? 0 : 1);
            if (associate) {
                m_wholeCopy = WholeCopy::Associated;
                m_ystride = m_xstride * b.width;
            }
        }
        if (metadata) resolutionToAttributes(*metadata, spec);
        if (const std::string compression = compressionOf(format, params.compression);
            !compression.empty())
            spec.attribute("compression", compression);
        if (format.index == IFL_FORMAT_JPEG || format.index == IFL_FORMAT_WEBP) {
            const int quality = qualityOf(params.quality);
            spec.attribute("compression",
                           std::string(format.codec) + ":" + std::to_string(quality));
            spec.attribute("CompressionQuality", quality);
        }
        if (format.index == IFL_FORMAT_PNG && params.compression != IFL_DEFAULT_WORD)
            spec.attribute("png:compressionLevel", std::min<int>(params.compression, 9));

        if (metadata && !format.exiv2) {
            // The EXR encoder takes EXIF, IPTC and XMP as attributes, and has no
            // place for a profile; the other formats hold no metadata at all.
            const bool exr = format.index == IFL_FORMAT_EXR;
            ifl::warnUnheld(*metadata, m_withIcc, exr ? ifl::Exif | ifl::Iptc | ifl::Xmp : 0u,
                            format.name, warnings);
            if (exr) ifl::metadataToAttributes(*metadata, false, spec, format.name, warnings);
        }

        m_output = OIIO::ImageOutput::create(format.codec);
        if (!m_output) throw Failure{IFL_ERROR_UNKNOWN_FORMAT, OIIO::geterror()};
        if (!m_output->set_ioproxy(&m_proxy))
            throw Failure{IFL_ERROR_FILE_WRITE, m_output->geterror()};
        if (!m_output->open(path, spec)) throw Failure{IFL_ERROR_FILE_WRITE, m_output->geterror()};
    }

    // Encodes the rows from the last one encoded up to `rows`, which the
    // caller has complete.
    void rowsReady(int rows) {
        rows = std::min(rows, m_bitmap.height);
        if (m_wholeCopy != WholeCopy::None || rows <= m_written) return;
        write(m_bitmap.data + static_cast<std::ptrdiff_t>(m_written) * m_ystride, m_written, rows);
        m_written = rows;
    }

    // The encoded file, metadata included.
    std::vector<std::uint8_t> finish() {
        if (m_wholeCopy != WholeCopy::None) {
            const std::vector<std::uint8_t> copy =
                m_wholeCopy == WholeCopy::GreyToRgb
                    ? greyToRgb(m_bitmap)
                    : ifl::withComponentType(m_bitmap.bitsPerComponent, [&](auto zero) {
                          return associatedCopy<decltype(zero)>(m_bitmap);
                      });
            write(copy.data(), 0, m_bitmap.height);
        } else {
            rowsReady(m_bitmap.height);
        }
        if (!m_output->close()) throw Failure{IFL_ERROR_FILE_WRITE, m_output->geterror()};
        m_output.reset();
        if (m_metadata && m_format.exiv2)
            ifl::embedMetadata(m_bytes, *m_metadata, m_withIcc, m_format.metadataKinds,
                               m_format.index == IFL_FORMAT_TIFF, m_format.name, m_warnings);
        return std::move(m_bytes);
    }

private:
    enum class WholeCopy { None, GreyToRgb, Associated };

    void write(const std::uint8_t* first, int y0, int y1) {
        if (!m_output->write_scanlines(y0, y1, 0, ifl::typeOfDepth(m_bitmap.bitsPerComponent),
                                       first, m_xstride, m_ystride))
            throw Failure{IFL_ERROR_FILE_WRITE, m_output->geterror()};
    }

    const IflBitmap& m_bitmap;
    const ifl::FormatInfo& m_format;
    const IflMetadata* m_metadata;
    std::vector<std::string>& m_warnings;
    const bool m_withIcc;
    WholeCopy m_wholeCopy = WholeCopy::None;
    OIIO::stride_t m_xstride = m_bitmap.bytesPerPixel;
    OIIO::stride_t m_ystride = m_bitmap.bytesPerLine;
    int m_written = 0;
    std::vector<std::uint8_t> m_bytes;
    OIIO::Filesystem::IOVecOutput m_proxy;
    std::unique_ptr<OIIO::ImageOutput> m_output;
};

void writeFile(const std::filesystem::path& target, const std::vector<std::uint8_t>& bytes) {
    TemporaryFile file;
    if (!file.create(target))
        throw Failure{IFL_ERROR_FILE_CREATE, systemError(target.parent_path().c_str())};
    // A replaced file keeps its permissions.
    struct stat st {};
    if (::stat(target.c_str(), &st) == 0) ::fchmod(file.descriptor(), st.st_mode & 07777);
    if (!file.write(bytes.data(), bytes.size()) || !file.flush())
        throw Failure{IFL_ERROR_FILE_WRITE, systemError(target.c_str())};
    if (!file.commit(target)) throw Failure{IFL_ERROR_FILE_WRITE, systemError(target.c_str())};
}

} // namespace

void iflRemoveTemporaryFiles() noexcept {
    for (TemporarySlot& slot : temporarySlots)
        if (slot.state.load() == 2) ::unlink(slot.name);
}

IflError iflGetDefaultSaveParams(IflSaveParams& params) {
    params = IflSaveParams{};
    return IFL_OK;
}

struct IflSave {
    std::string path;
    std::filesystem::path target;
    std::vector<std::string> warnings;
    std::optional<Encoder> encoder;
    IflError code = IFL_OK;
    std::string detail;

    // Runs one step of the save; the first failure stays the save's answer.
    template <class Step>
    IflError run(Step&& step) noexcept {
        if (code != IFL_OK) return code;
        try {
            step();
        } catch (const Failure& failure) {
            fail(failure.code, failure.detail);
        } catch (const std::bad_alloc&) {
            fail(IFL_ERROR_NO_MEMORY, "out of memory");
        } catch (const std::exception& e) {
            fail(IFL_ERROR_FILE_WRITE, e.what());
        }
        return code;
    }

    void fail(IflError failure, std::string text) noexcept {
        code = failure;
        detail = std::move(text);
    }

    IflError tell(IflReport* report) {
        if (report) {
            report->path = path;
            report->detail = detail;
            report->warnings = warnings;
        }
        return code;
    }
};

IflError iflBeginSave(const char* path, const IflBitmap* bitmap, const IflSaveParams& params,
                      IflSave** save, IflReport* report) {
    if (save) *save = nullptr;
    std::unique_ptr<IflSave> made;
    try {
        made = std::make_unique<IflSave>();
    } catch (const std::bad_alloc&) {
        if (report) {
            report->path = path ? path : "";
            report->detail = "out of memory";
            report->warnings.clear();
        }
        return IFL_ERROR_NO_MEMORY;
    }
    IflSave& s = *made;
    s.run([&] { s.path = path ? path : ""; });
    if (s.code != IFL_OK) return s.tell(report);
    auto refuse = [&](IflError code, std::string detail) {
        s.fail(code, std::move(detail));
        return s.tell(report);
    };
    if (!path || !*path || !bitmap || !save)
        return refuse(IFL_ERROR_BAD_PARAMETERS, "no file name or no bitmap");

    const IflBitmap& b = *bitmap;
    const int bits = b.bitsPerComponent;
    const int components = b.componentsPerPixel;
    if (!b.data || b.width <= 0 || b.height <= 0 || (bits != 8 && bits != 16 && bits != 32) ||
        (components != 1 && components != 3 && components != 4) ||
        b.bytesPerPixel != bits / 8 * components ||
        std::int64_t{b.bytesPerLine} < std::int64_t{b.bytesPerPixel} * b.width)
        return refuse(IFL_ERROR_BAD_BITMAP, "the bitmap has no pixels or an inconsistent layout");

    const ifl::FormatInfo* format = ifl::formatByIndex(params.formatIndex);
    if (!format)
        return refuse(IFL_ERROR_BAD_FORMAT_INDEX,
                      "format index " + std::to_string(params.formatIndex) + " is not known");
    if (!(format->depths & ifl::depthBit(bits)))
        return refuse(IFL_ERROR_BAD_BITMAP, std::string(format->name) + " files do not hold " +
                                                std::to_string(bits) + "-bit components");

    s.run([&] {
        s.target = std::filesystem::path(path);
        checkTarget(s.target);
        s.encoder.emplace(path, b, *format, params, ifl::metadataOf(bitmap), s.warnings);
    });
    if (s.code != IFL_OK) return s.tell(report);
    *save = made.release();
    return IFL_OK;
}

IflError iflSaveRows(IflSave* save, int rows) {
    if (!save) return IFL_ERROR_BAD_PARAMETERS;
    return save->run([&] { save->encoder->rowsReady(rows); });
}

IflError iflEndSave(IflSave* save, IflReport* report) {
    if (!save) return IFL_ERROR_BAD_PARAMETERS;
    save->run([&] {
        const std::vector<std::uint8_t> bytes = save->encoder->finish();
        writeFile(save->target, bytes);
    });
    return save->tell(report);
}

void iflFreeSave(IflSave* save) {
    const std::unique_ptr<IflSave> owned(save);
}

IflError iflSaveBitmap(const char* path, const IflBitmap* bitmap, const IflSaveParams& params,
                       IflReport* report) {
    IflSave* started = nullptr;
    const IflError code = iflBeginSave(path, bitmap, params, &started, report);
    if (code != IFL_OK) return code;
    const IflSavePtr save(started);
    return iflEndSave(started, report);
}
