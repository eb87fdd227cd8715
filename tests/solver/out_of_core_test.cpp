// Out-of-core factor: the same bits as in core, memory under the limit, and
// the failures of the file layer (folder, full disk, removed file), each
// leaving no file behind. Cases that change process limits or measure the
// peak run in a child process (this program, re-run with one case named in
// SPDS_OOC_TEST_CHILD).
#include "OutOfCoreConfig.h"
#include "OutOfCoreStore.h"
#include "SpdsTest.h"

#include <gtest/gtest.h>

#include <complex>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

using namespace spdstest;
namespace fs = std::filesystem;

// 7-point Laplacian of a k x k x k grid with Dirichlet borders.
System laplacian3d(int k, int mtype, double shift = 0.0) {
    Entries e;
    auto at = [k](int x, int y, int z) { return (z * k + y) * k + x; };
    for (int z = 0; z < k; ++z)
        for (int y = 0; y < k; ++y)
            for (int x = 0; x < k; ++x) {
                const int i = at(x, y, z);
                e[{i, i}] = 6.0 + shift;
                if (x + 1 < k) e[{i, at(x + 1, y, z)}] = e[{at(x + 1, y, z), i}] = -1.0;
                if (y + 1 < k) e[{i, at(x, y + 1, z)}] = e[{at(x, y + 1, z), i}] = -1.0;
                if (z + 1 < k) e[{i, at(x, y, z + 1)}] = e[{at(x, y, z + 1), i}] = -1.0;
            }
    return fromEntries("laplacian3d", mtype, k * k * k, e);
}

// Sets (or with null clears) an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : m_name(name) {
        if (const char* old = std::getenv(name)) m_old = old, m_had = true;
        value ? ::setenv(name, value, 1) : ::unsetenv(name);
    }
    ~ScopedEnv() { m_had ? ::setenv(m_name, m_old.c_str(), 1) : ::unsetenv(m_name); }

private:
    const char* m_name;
    std::string m_old;
    bool m_had = false;
};

// A fresh folder for the files, removed with everything in it.
struct TempFolder {
    fs::path path;
    TempFolder() {
        std::string tmpl = (fs::temp_directory_path() / "spds_ooc_XXXXXX").string();
        path = ::mkdtemp(tmpl.data());
    }
    ~TempFolder() {
        fs::permissions(path, fs::perms::owner_all);
        fs::remove_all(path);
    }
    std::vector<std::string> files() const {
        std::vector<std::string> out;
        for (const auto& e : fs::directory_iterator(path))
            out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }
    std::string stem() const { return (path / "run").string(); }
};

// The out-of-core variables of one case: files under `stem`, `limitMb`.
struct OocEnv {
    ScopedEnv cfgPath, stem, limit, keep;
    OocEnv(const std::string& folder, const std::string& stemPath, int limitMb, int keepFiles = 0)
        : cfgPath("SPDS_OOC_CFG_PATH", folder.c_str()), stem("SPDS_OOC_PATH", stemPath.c_str()),
          limit("SPDS_OOC_MAX_CORE_SIZE", std::to_string(limitMb).c_str()),
          keep("SPDS_OOC_KEEP_FILE", std::to_string(keepFiles).c_str()) {}
};

template <class T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

// Analysis, factorization and solve with iparm[59] = mode; x and the
// iparm of the run come back.
template <class T>
int solveWith(const System& s, int mode, std::vector<T>& x, int* iparmOut = nullptr,
              const TempFolder* watch = nullptr, std::vector<std::string>* seen = nullptr,
              int ordering = -1, std::int64_t partBytes = 0) {
    SpdsRun<T> run(s);
    run.iparm[59] = mode;
    if (ordering >= 0) run.iparm[1] = ordering;
    std::vector<T> b(static_cast<std::size_t>(s.n));
    for (int i = 0; i < s.n; ++i)
        b[static_cast<std::size_t>(i)] = static_cast<T>(1.0 + (i % 7) * 0.25);
    x.assign(b.size(), T(0));
    int error = 0;
    if (partBytes > 0) {
        error = run.call(11);
        run.handle()->ooc.partBytes = partBytes;
        // The second factorization takes the row indices back from the first one's files.
        for (int k = 0; k < 2 && error == 0; ++k)
            error = run.call(22);
    } else {
        error = run.call(12);
    }
    if (watch && seen) *seen = watch->files();
    if (error == 0) error = run.call(33, &b, &x);
    if (iparmOut) std::copy(run.iparm, run.iparm + 64, iparmOut);
    return error;
}

// ---- the same answer -------------------------------------------------------

// With partBytes the files are split into parts of that size.
template <class T>
void expectSameAsInCore(const System& s, int limitMb, std::int64_t partBytes = 0) {
    TempFolder folder;
    OocEnv env(folder.path.string(), folder.stem(), limitMb);
    std::vector<T> inCore, outOfCore;
    int iparm[64] = {};
    ASSERT_EQ(solveWith(s, 0, inCore), 0);
    std::vector<std::string> during;
    ASSERT_EQ(solveWith(s, 2, outOfCore, iparm, &folder, &during, -1, partBytes), 0) << iparm[14];
    EXPECT_EQ(iparm[55], 2) << "the window should hold only part of the factor";
    EXPECT_TRUE(sameBits(inCore, outOfCore)) << s.mtype;
    const std::string own = "run_" + std::to_string(::getpid()) + "_";
    ASSERT_FALSE(during.empty());
    for (const std::string& f : during)
        EXPECT_EQ(f.rfind(own, 0), 0u) << f;
    const std::size_t sides = s.mtype == 11 || s.mtype == 13 ? 2u : 1u;
    if (partBytes > 0) {
        EXPECT_GT(during.size(), 2 * sides) << "the files should be in several parts";
        EXPECT_NE(std::find_if(during.begin(), during.end(),
                               [](const std::string& f) {
                                   return f.size() > 6 && f.compare(f.size() - 6, 6, "-2.unz") == 0;
                               }),
                  during.end());
    } else
        EXPECT_EQ(during.size(), sides + 1) << "one file of L, one of U for LU, one of indices";
    EXPECT_NE(std::find_if(during.begin(), during.end(),
                           [](const std::string& f) { return f.ends_with(".ind"); }),
              during.end());
    EXPECT_TRUE(folder.files().empty()) << "files outlived their handle";
}

TEST(OutOfCore, SameBitsAsInCore) {
    // Limits small enough that panels stream, for each factor kind.
    expectSameAsInCore<double>(laplacian3d(16, 2), 2);
    expectSameAsInCore<double>(laplacian3d(16, -2, -0.5), 2);
    expectSameAsInCore<double>(laplacian3d(16, 11), 2);
    expectSameAsInCore<float>(laplacian3d(18, 2), 2);
    expectSameAsInCore<std::complex<double>>(laplacian3d(14, 13), 3);
    // Parts of an odd size, so that panels and chunks straddle them.
    expectSameAsInCore<double>(laplacian3d(16, 11), 2, 300007);
}

TEST(OutOfCore, DecisionAndLimits) {
    const System s = laplacian3d(16, 2);
    TempFolder folder;
    struct Row {
        const char* what;
        int mode;
        int limitMb;
        int error;
        int reported; // iparm[55]
        bool files;   // files exist between factorization and solve
        int ordering = -1;
    } rows[] = {
        {"mode 1 with room stays in core", 1, 2000, 0, -1, false},
        {"mode 1 without room goes out of core", 1, 2, 0, 2, true},
        {"mode 2 with room keeps every panel in the window", 2, 2000, 0, 0, true},
        {"a limit below two panels", 2, 0, -9, -1, false},
        {"dissected into parts, the largest branch fits", 2, 3, 0, 3, true, 3},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        OocEnv env(folder.path.string(), folder.stem(), r.limitMb);
        std::vector<double> x;
        int iparm[64] = {};
        std::vector<std::string> seen;
        EXPECT_EQ(solveWith(s, r.mode, x, iparm, &folder, &seen, r.ordering), r.error);
        EXPECT_EQ(iparm[55], r.reported);
        EXPECT_EQ(!seen.empty(), r.files);
        EXPECT_GE(iparm[60], iparm[61]);
        if (r.error == -9) {
            EXPECT_GT(iparm[14], 0) << "the need, in kilobytes";
        }
        EXPECT_TRUE(folder.files().empty());
    }
}

TEST(OutOfCore, LargestBranchOfTheDissection) {
    using skyrinse::spds::largestBranch;
    struct Row {
        std::vector<std::int64_t> domains, separators;
        std::int64_t expected;
    } rows[] = {
        {{1, 2}, {3}, 5},
        // Separators children first: over 0-1, over 2-3, the root.
        {{5, 1, 1, 9}, {1, 2, 10}, 21},
        {{5, 1, 1, 1}, {1, 2, 10}, 16},
        {{1, 2, 3}, {1, 1}, 0}, // not a power of 2
        {{1, 2}, {}, 0},        // a separator missing
    };
    for (const Row& r : rows)
        EXPECT_EQ(largestBranch(r.domains, r.separators), r.expected);
}

// The statistics show the files' share of the time and the bytes moved,
// and the second level the storage scheme, only when the factor was in
// files.
TEST(OutOfCore, StatisticsShowTheFiles) {
    const System s = laplacian3d(8, 2);
    TempFolder folder;
    OocEnv env(folder.path.string(), folder.stem(), 4);
    for (int mode : {0, 2}) {
        SpdsRun<double> run(s);
        run.iparm[59] = mode;
        run.msglvl = 2;
        std::vector<double> b(static_cast<std::size_t>(s.n), 1.0), x(b.size());
        testing::internal::CaptureStdout();
        const int error = run.call(12) + run.call(33, &b, &x);
        const std::string out = testing::internal::GetCapturedStdout();
        ASSERT_EQ(error, 0);
        const std::size_t mb = out.rfind("Out of core Mb"); // the solve's report
        EXPECT_EQ(mb != std::string::npos, mode == 2) << out;
        EXPECT_EQ(out.find("algorithm of OOC SPDS is run; comi(60)=1") != std::string::npos,
                  mode == 2);
        if (mode != 2) continue;
        // Factorization: the whole factor written once; the solve reads it
        // back in each pass.
        double written = 0, readBack = -1, solveRead = 0;
        const char* p = out.c_str() + out.find("write to files :", mb);
        EXPECT_EQ(std::sscanf(p,
                              " write to files : %lf Mb read from files: %lf Mb Solution "
                              "step: read from files: %lf",
                              &written, &readBack, &solveRead),
                  3)
            << p;
        EXPECT_GT(written, 0.0);
        EXPECT_GE(readBack, 0.0);
        EXPECT_GE(solveRead, written) << "a solve reads every panel at least once";
        EXPECT_NE(out.find("Factorization:\tTime for writing to files"), std::string::npos);
    }
}

// Two handles at once never share a name; a new analysis, a failed call
// and phase -1 each remove what the handle had; keeping files is asked for.
TEST(OutOfCore, FilesBelongToTheirHandle) {
    const System s = laplacian3d(8, -2, -0.5);
    TempFolder folder;
    {
        OocEnv env(folder.path.string(), folder.stem(), 4);
        SpdsRun<double> first(s), second(s);
        first.iparm[59] = second.iparm[59] = 2;
        ASSERT_EQ(first.call(12), 0);
        ASSERT_EQ(second.call(12), 0);
        EXPECT_EQ(folder.files().size(), 4u) << "values and indices of each";
        ASSERT_EQ(first.call(11), 0) << "a second analysis drops the factor and its files";
        EXPECT_EQ(folder.files().size(), 2u);
        ASSERT_EQ(second.call(0), 0);
        EXPECT_TRUE(folder.files().empty()) << "phase 0 drops the factor's files";
        EXPECT_EQ(second.call(22), 0) << "the row indices came back to the analysis";
        EXPECT_EQ(folder.files().size(), 2u);
        // The next factor writes over the slot's files in place, but never
        // through a name that now leads to another file.
        const fs::path lnz = folder.path / folder.files()[1];
        ASSERT_TRUE(lnz.string().ends_with(".lnz"));
        std::ofstream(folder.path / "other") << "x";
        fs::remove(lnz);
        fs::create_symlink(folder.path / "other", lnz);
        EXPECT_EQ(second.call(22), 0);
        EXPECT_FALSE(fs::is_symlink(lnz));
        EXPECT_EQ(fs::file_size(folder.path / "other"), 1u);
        fs::remove(folder.path / "other");
        second.release();
        EXPECT_TRUE(folder.files().empty());
    }
    {
        OocEnv env(folder.path.string(), folder.stem(), 4, 1);
        SpdsRun<double> kept(s);
        kept.iparm[59] = 2;
        ASSERT_EQ(kept.call(12), 0);
        ASSERT_EQ(kept.call(22), 0) << "a new factor replaces the kept files of the slot";
        kept.release();
        EXPECT_EQ(folder.files().size(), 2u) << "SPDS_OOC_KEEP_FILE=1 keeps a finished factor";
    }
    // Files of a process that died without cleaning up go with the next
    // factor of the stem, when files are not kept; nothing else does.
    const pid_t dead = ::fork();
    if (dead == 0) ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    const std::string d = std::to_string(dead), live = std::to_string(::getppid());
    const std::vector<std::string> kept = folder.files();
    const std::vector<std::string> orphans = {"run_" + d + "_1.lnz", "run_" + d + "_3_2.unz",
                                              "run_" + d + "_1-2.lnz", "run_" + d + "_1.ind"};
    std::vector<std::string> others = {"run_" + live + "_1.lnz", "run_" + d + "_1.lnz.bak",
                                       "runs_" + d + "_1.lnz", "run_" + d + "_x.lnz"};
    for (const std::string& f : orphans)
        std::ofstream(folder.path / f) << "x";
    for (const std::string& f : others)
        std::ofstream(folder.path / f) << "x";
    others.insert(others.end(), kept.begin(), kept.end());
    {
        OocEnv env(folder.path.string(), folder.stem(), 4);
        SpdsRun<double> run(s);
        run.iparm[59] = 2;
        ASSERT_EQ(run.call(12), 0);
        run.release();
    }
    std::sort(others.begin(), others.end());
    EXPECT_EQ(folder.files(), others);
}

// ---- failures ----------------------------------------------------------------

// Runs this program again with SPDS_OOC_TEST_CHILD=name; returns the child's
// "RESULT" line, or "" when it ended otherwise.
std::string runChild(const std::string& name) {
    ScopedEnv child("SPDS_OOC_TEST_CHILD", name.c_str());
    int out[2];
    if (::pipe(out) != 0) return "";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::string self = fs::read_symlink("/proc/self/exe").string();
    std::string filter = "--gtest_filter=OutOfCoreChild.Run";
    char* argv[] = {self.data(), filter.data(), nullptr};
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, self.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string text;
    char buf[4096];
    for (ssize_t r; (r = ::read(out[0], buf, sizeof buf)) > 0;)
        text.append(buf, static_cast<std::size_t>(r));
    ::close(out[0]);
    if (spawned != 0) return "";
    int status = 0;
    ::waitpid(pid, &status, 0);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("RESULT ", 0) == 0) return line.substr(7);
    return "";
}

long statusKb(const char* key) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0)
            return std::strtol(line.c_str() + std::strlen(key), nullptr, 10);
    return -1;
}

// The cases of the child. Each prints "RESULT <figures>".
void childCase(const std::string& name) {
    TempFolder folder;
    const System s = laplacian3d(name == "peak" ? 32 : 12, 2);
    std::vector<double> b(static_cast<std::size_t>(s.n), 1.0), x(b.size());
    if (name == "peak") {
        // The dense library and the thread team start before the baseline.
        std::vector<double> xs;
        solveWith(laplacian3d(6, 2), 0, xs);
        const int limitMb = 10;
        OocEnv env(folder.path.string(), folder.stem(), limitMb);
        SpdsRun<double> run(s);
        run.iparm[59] = 2;
        run.iparm[17] = -1;
        const int analysed = run.call(11);
        const long base = statusKb("VmRSS:");
        std::ofstream("/proc/self/clear_refs") << "5";
        const int solved = analysed == 0 ? run.call(23, &b, &x) : analysed;
        const long peak = statusKb("VmHWM:");
        const long factorKb = static_cast<long>(run.iparm[17]) * 8 / 1024;
        std::printf("RESULT %d %ld %ld %ld %d %d\n", solved, peak - base, factorKb, limitMb * 1024L,
                    run.iparm[55], run.iparm[62]);
        return;
    }
    OocEnv env(folder.path.string(), folder.stem(), 4);
    SpdsRun<double> run(s);
    run.iparm[59] = 2;
    int error = 0;
    if (name == "full") {
        // 128 KB of file at most, and the signal of a longer write ignored:
        // the write fails instead.
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{128 << 10, 128 << 10};
        ::setrlimit(RLIMIT_FSIZE, &small);
        error = run.call(12);
    } else if (name == "removed") {
        error = run.call(12);
        for (const std::string& f : folder.files())
            fs::remove(folder.path / f);
        if (error == 0) error = run.call(33, &b, &x);
    } else if (name == "truncated") {
        error = run.call(12);
        for (const std::string& f : folder.files())
            fs::resize_file(folder.path / f, 4096);
        if (error == 0) error = run.call(33, &b, &x);
    }
    const std::size_t before = folder.files().size();
    run.release();
    std::printf("RESULT %d %zu %zu\n", error, before, folder.files().size());
}

TEST(OutOfCoreChild, Run) {
    const char* name = std::getenv("SPDS_OOC_TEST_CHILD");
    if (!name) GTEST_SKIP() << "runs only as the child of another case";
    childCase(name);
}

TEST(OutOfCore, FileFailures) {
    const System s = laplacian3d(8, 2);
    TempFolder folder;
    const fs::path locked = folder.path / "locked";
    fs::create_directory(locked);
    fs::permissions(locked, fs::perms::owner_read | fs::perms::owner_exec);
    const bool root = ::geteuid() == 0;
    struct Row {
        const char* what;
        std::string stem;
        int error;
    } rows[] = {
        {"folder that does not exist", (folder.path / "missing" / "run").string(), -10},
        {"folder that cannot be written", (locked / "run").string(), root ? 0 : -10},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        OocEnv env(folder.path.string(), r.stem, 4);
        std::vector<double> x;
        EXPECT_EQ(solveWith(s, 2, x), r.error);
        EXPECT_TRUE(fs::is_empty(locked));
    }
    // In a child: "error files-before-release files-after".
    struct ChildRow {
        const char* name;
        int error;
    } children[] = {
        {"full", -11},      // the disk fills during the factorization
        {"removed", -10},   // the files go between factorization and solve
        {"truncated", -11}, // they lose their end
    };
    for (const ChildRow& c : children) {
        SCOPED_TRACE(c.name);
        std::istringstream result(runChild(c.name));
        int error = 1;
        std::size_t before = 99, after = 99;
        ASSERT_TRUE(result >> error >> before >> after) << "the child did not report";
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(after, 0u);
        if (std::string(c.name) == "full") {
            EXPECT_EQ(before, 0u) << "a failed factorization keeps no file";
        }
    }
}

TEST(OutOfCore, PeakMemoryStaysUnderTheLimit) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's shadow memory is part of the peak";
#endif
    std::istringstream result(runChild("peak"));
    int error = 1, mode = 0, workMb = 0;
    long grown = 0, factorKb = 0, limitKb = 0;
    ASSERT_TRUE(result >> error >> grown >> factorKb >> limitKb >> mode >> workMb);
    ASSERT_EQ(error, 0);
    EXPECT_EQ(mode, 2);
    EXPECT_GE(factorKb, 4 * limitKb) << "the factor should be four times the limit";
    // The limit covers the panels in memory; the work arrays (iparm[62]),
    // the solve's vectors and the dense library's buffers come on top.
    EXPECT_LT(grown, limitKb + workMb * 1024L + 4 * 1024) << "grew by " << grown << " KB";
}

// ---- configuration -------------------------------------------------------------

TEST(OutOfCoreConfig, FileAndEnvironment) {
    using skyrinse::spds::OocConfig;
    struct Row {
        const char* what;
        const char* text;
        bool fromEnvironment[3];
        OocConfig expected;
    } rows[] = {
        {"keys in any case, comments, blanks",
         "SPDS_OOC_PATH = /scratch/a  # stem\n"
         "  spds_ooc_max_core_size=512\n"
         "Spds_Ooc_Keep_File =0\n",
         {false, false, false},
         {"/scratch/a", 512, 0}},
        {"a path with blanks",
         "spds_ooc_path = /my files/run 2\n",
         {false, false, false},
         {"/my files/run 2", 2000, 1}},
        {"lines without = and unknown keys are skipped",
         "spds_ooc_max_core_size 77\nspds_other = 3\n# spds_ooc_keep_file = 0\n",
         {false, false, false},
         {"ooc_temp", 2000, 1}},
        {"the environment wins key by key",
         "spds_ooc_path = /f\nspds_ooc_max_core_size = 9\n",
         {true, false, false},
         {"ooc_temp", 9, 1}},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.what);
        OocConfig c;
        skyrinse::spds::applyOocConfigText(r.text, c, r.fromEnvironment);
        EXPECT_EQ(c.stem, r.expected.stem);
        EXPECT_EQ(c.maxCoreMb, r.expected.maxCoreMb);
        EXPECT_EQ(c.keepFile, r.expected.keepFile);
    }
    // The file under its configured name; with every value from the
    // environment it is not read at all.
    TempFolder folder;
    std::ofstream(folder.path / "my.cfg") << "spds_ooc_path = /from/file   \n"
                                             "spds_ooc_max_core_size = 123\n";
    ScopedEnv path("SPDS_OOC_CFG_PATH", folder.path.c_str());
    ScopedEnv name("SPDS_OOC_CFG_FILE_NAME", "my.cfg");
    ScopedEnv stem("SPDS_OOC_PATH", nullptr);
    ScopedEnv size("SPDS_OOC_MAX_CORE_SIZE", nullptr);
    ScopedEnv keep("SPDS_OOC_KEEP_FILE", "1");
    OocConfig fromFile = skyrinse::spds::readOocConfig(0);
    EXPECT_EQ(fromFile.stem, "/from/file") << "trailing blanks are cut";
    EXPECT_EQ(fromFile.maxCoreMb, 123);
    ::setenv("SPDS_OOC_PATH", "/env", 1);
    ::setenv("SPDS_OOC_MAX_CORE_SIZE", "7", 1);
    OocConfig fromEnv = skyrinse::spds::readOocConfig(0);
    EXPECT_EQ(fromEnv.stem, "/env");
    EXPECT_EQ(fromEnv.maxCoreMb, 7);
    EXPECT_EQ(fromEnv.keepFile, 1);
}

} // namespace
