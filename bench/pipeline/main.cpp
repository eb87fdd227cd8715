// bench_pipeline: a hazy photograph from file to file, against a plain decode
// and encode of the same file with the same libraries in the same run, and
// where its time goes.
//
//   bench_pipeline [--sizes 1,12,24,48] [--runs 3] [--threads 2] [--keep DIR]
//
// For each size a hazy JPEG (quality 95, with the metadata of the bundled
// photograph) is made by enlarging the bundled photograph. Then, each in a
// process of its own so that peak memory is the run's own, best of --runs:
//   decode+encode  IFL decodes the file and encodes it again (quality 95);
//   skyrinse       the command itself: plug-in loaded, file in, file out.
// Wall time, CPU time and peak resident memory of each, and the ratios. The
// two commands run in turn, so that on a shared machine both meet the same
// spells of load. Then the stages of one run in a process of their own
// (decode, working copy from converted rows, estimate, refinement with its
// sparse solve, the bands that convert, remove the haze and convert back
// with the encoder taking them as they are done, the encoding's end with the
// metadata and the file),
// with the resident memory and its peak after each, and the full-size passes
// on an RGBA float picture against the memory bandwidth measured in the same
// run.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZImage.h"
#include "ZImage/ZImageHaze.h"
#include "bench/common/TriadBandwidth.h"
#include "imagefile/Ifl.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <QTemporaryDir>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double processCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return t.tv_sec + t.tv_nsec * 1e-9;
}

struct Run {
    double wall = 1e30;
    double cpu = 0.0;
    double peakMiB = 0.0;
    bool ok = true;
};

// Runs a command in a child process and measures it from outside.
Run runChild(const std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const auto start = Clock::now();
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int sink = ::open("/dev/null", O_WRONLY);
        ::dup2(sink, STDOUT_FILENO);
        ::dup2(sink, STDERR_FILENO);
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    Run run;
    int status = 0;
    rusage usage{};
    if (pid < 0 || ::wait4(pid, &status, 0, &usage) < 0) {
        run.ok = false;
        return run;
    }
    run.wall = seconds(start);
    run.cpu = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec * 1e-6 + usage.ru_stime.tv_sec +
              usage.ru_stime.tv_usec * 1e-6;
    run.peakMiB = usage.ru_maxrss / 1024.0;
    run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return run;
}

// Keeps the fastest run, and the smallest peak, of the runs so far.
void keepBest(Run& best, const Run& run, bool first) {
    best.ok = best.ok && run.ok;
    if (run.wall < best.wall) {
        best.wall = run.wall;
        best.cpu = run.cpu;
    }
    best.peakMiB = first ? run.peakMiB : std::min(best.peakMiB, run.peakMiB);
}

// Best of `runs` runs of each of two commands, run in turn, so that on a
// shared machine both meet the same spells of load.
std::pair<Run, Run> bestOfBoth(int runs, const std::vector<std::string>& first,
                               const std::vector<std::string>& second,
                               const char* removeBeforeSecond) {
    Run a, b;
    for (int r = 0; r < runs; ++r) {
        keepBest(a, runChild(first), r == 0);
        if (removeBeforeSecond) std::remove(removeBeforeSecond);
        keepBest(b, runChild(second), r == 0);
    }
    return {a, b};
}

// The baseline: decode, encode at the default quality (95), no haze work.
int decodeEncode(const char* in, const char* out) {
    IflLoadParams load;
    iflGetDefaultLoadParams(load);
    IflBitmap* bitmap = nullptr;
    IflFileInformation information;
    if (iflLoadBitmap(in, &bitmap, load, &information) != IFL_OK) return 1;
    const IflBitmapPtr owned(bitmap);
    IflSaveParams save;
    iflGetDefaultSaveParams(save);
    iflGetFormatIndexByName("jpeg", &save.formatIndex);
    return iflSaveBitmap(out, bitmap, save) == IFL_OK ? 0 : 1;
}

// Standard output goes nowhere for a while (the solver prints its statistics).
class Quiet {
public:
    Quiet() {
        std::fflush(stdout);
        saved = ::dup(STDOUT_FILENO);
        const int sink = ::open("/dev/null", O_WRONLY);
        ::dup2(sink, STDOUT_FILENO);
        ::close(sink);
    }
    ~Quiet() {
        std::fflush(stdout);
        ::dup2(saved, STDOUT_FILENO);
        ::close(saved);
    }
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

private:
    int saved;
};

// A hazy photograph of about `megapixels`, 3:2, from the bundled one.
QString makePhotograph(const QString& folder, double megapixels) {
    const QString source = QStringLiteral(SKYRINSE_DATA_DIR "/aitzgorri_by_Aitzol_Berasategi.jpg");
    const int w = static_cast<int>(std::lround(std::sqrt(megapixels * 1e6 * 1.5)));
    const int h = static_cast<int>(std::lround(megapixels * 1e6 / w));
    ZImage photo;
    photo.Load(source);
    ZImage sized;
    photo.ResizeTo(sized, w, h);
    const QString path = folder + QStringLiteral("/hazy-%1mp.jpg").arg(megapixels);
    sized.Save(path, QStringLiteral("jpg"), -1, source);
    return path;
}

// Resident and peak resident memory of this process, in MiB.
struct Resident {
    double now = 0.0;
    double peak = 0.0;
};

Resident residentMemory() {
    Resident r;
    std::FILE* status = std::fopen("/proc/self/status", "r");
    if (!status) return r;
    char line[256];
    while (std::fgets(line, sizeof line, status)) {
        long kib = 0;
        if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1) r.now = kib / 1024.0;
        if (std::sscanf(line, "VmHWM: %ld kB", &kib) == 1) r.peak = kib / 1024.0;
    }
    std::fclose(status);
    return r;
}

// Pages the process has faulted in so far (each first touch of a page).
long pageFaults() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

struct Stage {
    const char* name;
    double wall;
    double cpu;
    long faults;
    Resident memory; // after the stage
};

// One run of the plug-in's road through the stages, timed stage by stage,
// in a process of its own so that its memory figures are the run's own:
// decode (with the refinement prepared beside it), the whole haze removal
// into 8 bits (runHazeRemovalInto) with the encoder taking its bands, and
// the end of the encoding with the metadata and the file.
// Its first three stages are also timed on their own beforehand ("of
// which"), their results dropped before the whole run; the bands that
// follow them are the full-size pass measured apart.
int printStages(const char* in, const char* out, int threads) {
    const QString path = QString::fromLocal8Bit(in);
    std::vector<Stage> stages;
    auto time = [&](const char* name, auto&& body) {
        const double cpu = processCpuSeconds();
        const long faults = pageFaults();
        const auto start = Clock::now();
        body();
        stages.push_back({name, seconds(start), processCpuSeconds() - cpu, pageFaults() - faults,
                          residentMemory()});
    };
    threadCount = threads;
    ZImage source, output;
    HazeSettings settings;
    settings.strength = 60;
    // As the plug-in does: the solver's ordering of the working system is
    // prepared from the header while the source decodes.
    std::optional<RefinementPreparation> preparation;
    {
        IflLoadParams load;
        iflGetDefaultLoadParams(load);
        load.flags |= IFL_LOAD_HEADER_ONLY;
        IflBitmap* header = nullptr;
        IflFileInformation information;
        iflLoadBitmap(in, &header, load, &information);
        const IflBitmapPtr owned(header);
        if (header) preparation.emplace(header->width, header->height);
    }
    time("decode", [&] { source.Load(path); });
    {
        const HazeWorkingSize size = hazeWorkingSize(source.Width(), source.Height());
        ZImage working;
        std::unique_ptr<float[]> map;
        time(" of which: working copy",
             [&] { source.ResizeAsFloatTo(working, size.width, size.height); });
        time(" of which: estimate", [&] { map = working.estimateDarkChannel(settings.airlight); });
        time(" of which: refine (solve)", [&] {
            const Quiet quiet;
            working.refineDarkChannel(
                std::span<float>(map.get(), static_cast<std::size_t>(size.width) * size.height));
        });
    }
    // As the plug-in does: the encoder is opened on the output before the
    // bands and takes them as they are done.
    std::optional<ZImageRowSave> save;
    time("haze removal, encoding", [&] {
        const Quiet quiet;
        output.Create(source.Width(), source.Height(), ZImage::RGB, 8, false);
        save.emplace(output, QString::fromLocal8Bit(out), QStringLiteral("jpg"), -1, path);
        runHazeRemovalInto(source, settings, output, ZImage::RGB, 8,
                           [&save](int rows) { save->rowsReady(rows); });
    });
    // What the encoding spends on reading the source's header and metadata
    // again, on its own.
    time(" of which: metadata read", [&] {
        IflLoadParams load;
        iflGetDefaultLoadParams(load);
        load.flags |= IFL_LOAD_METADATA | IFL_LOAD_HEADER_ONLY;
        IflBitmap* loaded = nullptr;
        IflFileInformation information;
        iflLoadBitmap(in, &loaded, load, &information);
        const IflBitmapPtr owned(loaded);
        iflFreeFileInformation(&information);
    });
    time("encoding's end, file", [&] { save->finish(); });

    double total = 0.0;
    for (const Stage& s : stages)
        if (s.name[0] != ' ') total += s.wall;
    std::printf("  stages in a process of their own (%.2f s), page faults in each, resident "
                "memory after each:\n",
                total);
    for (const Stage& s : stages)
        std::printf(
            "    %-25s %7.1f ms (cpu %7.1f)  %5.1f %%  %6ld faults  %4.0f MiB, peak %4.0f\n",
            s.name, s.wall * 1e3, s.cpu * 1e3, 100.0 * s.wall / total, s.faults, s.memory.now,
            s.memory.peak);
    std::fflush(stdout);
    return 0;
}

// The full-size passes alone, on the decoded photograph as RGBA float.
void fullSizePasses(const QString& path, int threads, double triad) {
    ZImage photo, image;
    photo.Load(path);
    photo.CopyTo(image, ZImage::RGBA, 32);
    photo.Free();
    const double pixels = static_cast<double>(image.Width()) * image.Height();
    const HazeWorkingSize size = hazeWorkingSize(image.Width(), image.Height());
    ZImage working;
    image.ResizeTo(working, size.width, size.height);
    std::array<float, 3> airlight{};
    std::unique_ptr<float[]> map = working.estimateDarkChannel(airlight);
    {
        const Quiet quiet;
        working.refineDarkChannel(
            std::span<float>(map.get(), static_cast<std::size_t>(size.width) * size.height));
    }
    ZImage copy;
    copy.CopyFrom(image);
    threadCount = threads;
    auto line = [&](const char* name, double bytesPerPixel, auto&& body) {
        double best = 1e30, cpuOfBest = 0.0;
        for (int r = 0; r < 3; ++r) {
            const double cpu = processCpuSeconds();
            const auto start = Clock::now();
            body();
            const double wall = seconds(start);
            if (wall < best) {
                best = wall;
                cpuOfBest = processCpuSeconds() - cpu;
            }
        }
        const double rate = bytesPerPixel * pixels / best;
        // On a loaded machine the wall time counts the waits for a core; the
        // rate by processor time is the one of threads that had their cores.
        const double cpuRate = bytesPerPixel * pixels * threads / std::max(cpuOfBest, 1e-9);
        std::printf("    %-16s %7.1f ms (cpu %7.1f)  %5.2f ns/px  %2.0f B/px  %5.2f GB/s  "
                    "%4.1f %% of triad  (by cpu time %5.2f GB/s)\n",
                    name, best * 1e3, cpuOfBest * 1e3, best * 1e9 / pixels, bytesPerPixel,
                    rate / 1e9, 100.0 * rate / triad, cpuRate / 1e9);
    };
    // Bytes each pass moves per pixel: the picture read (16), the map
    // written (4) or read (4), the picture written back (16).
    std::unique_ptr<float[]> depth;
    line("upsample", 20, [&] { depth = image.upsampleDarkChannel(map.get(), working); });
    line("apply", 36, [&] { copy.applyHazeRemoval(depth.get(), airlight, 0.6f); });
    line("upsample+apply", 32,
         [&] { copy.upsampleAndApplyHazeRemoval(map.get(), working, airlight, 0.6f); });
    threadCount = 1;
}

std::vector<double> parseSizes(const char* text) {
    std::vector<double> sizes;
    for (const QByteArray& part : QByteArray(text).split(','))
        if (const double v = part.toDouble(); v > 0) sizes.push_back(v);
    return sizes;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--decode-encode") == 0)
        return decodeEncode(argv[2], argv[3]);
    if (argc == 5 && std::strcmp(argv[1], "--stages") == 0)
        return printStages(argv[2], argv[3], std::max(1, std::atoi(argv[4])));

    std::vector<double> sizes{1, 12, 24, 48};
    int runs = 3;
    int threads = 2;
    const char* keep = nullptr;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--sizes") == 0) sizes = parseSizes(argv[i + 1]);
        if (std::strcmp(argv[i], "--runs") == 0) runs = std::max(1, std::atoi(argv[i + 1]));
        if (std::strcmp(argv[i], "--threads") == 0) threads = std::max(1, std::atoi(argv[i + 1]));
        if (std::strcmp(argv[i], "--keep") == 0) keep = argv[i + 1];
    }
    QTemporaryDir temporary;
    const QString folder = keep ? QString::fromLocal8Bit(keep) : temporary.path();
    QDir().mkpath(folder);
    char exe[4096] = {};
    const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    const std::string benchPath = n > 0 ? std::string(exe, static_cast<std::size_t>(n)) : argv[0];

    double load[3] = {};
    if (::getloadavg(load, 3) > 0)
        std::printf("load average at start %.2f %.2f %.2f on %ld cores\n", load[0], load[1],
                    load[2], ::sysconf(_SC_NPROCESSORS_ONLN));
    const double triad1 = bench::triadBandwidth(1);
    const double triad = bench::triadBandwidth(threads);
    std::printf("triad bandwidth: %.1f GB/s on 1 thread, %.1f GB/s on %d\n", triad1 / 1e9,
                triad / 1e9, threads);
    std::printf("JPEG in, JPEG out (quality 95), %d threads, best of %d; peak = resident high "
                "water mark of the process\n",
                threads, runs);
    std::printf("haze-removal peers are not run here; the figures quoted for 24 MP on this "
                "machine kind: darktable-cli 3.93 s / 1381 MiB, rawtherapee-cli 5.36 s / 660 "
                "MiB\n\n");

    for (const double mp : sizes) {
        const QString photo = makePhotograph(folder, mp);
        const std::string in = photo.toStdString();
        const std::string plain = (folder + QStringLiteral("/plain.jpg")).toStdString();
        const std::string out = in.substr(0, in.size() - 4) + "_dehazed.jpg";
        {
            IflLoadParams load;
            iflGetDefaultLoadParams(load);
            load.flags |= IFL_LOAD_HEADER_ONLY;
            IflBitmap* header = nullptr;
            IflFileInformation information;
            iflLoadBitmap(in.c_str(), &header, load, &information);
            const IflBitmapPtr owned(header);
            std::printf("%.0f MP: %s, %d x %d, the bundled photograph (3088 x 2056) resampled\n",
                        mp, qPrintable(QFileInfo(photo).fileName()), header ? header->width : 0,
                        header ? header->height : 0);
        }

        const auto [base, sky] =
            bestOfBoth(runs, {benchPath, "--decode-encode", in, plain},
                       {SKYRINSE_EXE, "--strength", "60", "--threads", std::to_string(threads), in},
                       out.c_str());
        auto row = [](const char* name, const Run& r) {
            std::printf("  %-15s %6.2f s wall %6.2f s cpu %7.0f MiB peak%s\n", name, r.wall, r.cpu,
                        r.peakMiB, r.ok ? "" : "  (FAILED)");
        };
        row("decode+encode", base);
        row("skyrinse", sky);
        std::printf("  skyrinse / decode+encode: %.2fx wall, %.2fx cpu, %.2fx peak\n",
                    sky.wall / base.wall, sky.cpu / base.cpu, sky.peakMiB / base.peakMiB);
        if (mp == 24)
            std::printf("  skyrinse / quoted peers: %.2fx darktable's time, %.2fx "
                        "rawtherapee's; %.2fx darktable's memory, %.2fx rawtherapee's\n",
                        sky.wall / 3.93, sky.wall / 5.36, sky.peakMiB / 1381, sky.peakMiB / 660);

        std::fflush(stdout);
        const std::string stagesOut = (folder + QStringLiteral("/stages.jpg")).toStdString();
        const std::string threadText = std::to_string(threads);
        if (const pid_t pid = ::fork(); pid == 0) {
            ::execl(benchPath.c_str(), benchPath.c_str(), "--stages", in.c_str(), stagesOut.c_str(),
                    threadText.c_str(), nullptr);
            ::_exit(127);
        } else if (pid > 0) {
            int status = 0;
            ::waitpid(pid, &status, 0);
        }
        std::remove(stagesOut.c_str());
        std::printf("  full-size passes, %d threads:\n", threads);
        fullSizePasses(photo, threads, triad);
        std::printf("\n");
        std::remove(out.c_str());
        std::remove(plain.c_str());
        if (!keep) QFile::remove(photo);
    }
    return 0;
}
