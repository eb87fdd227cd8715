// The out-of-core factor; the contract is in OutOfCoreStore.h.
#include "OutOfCoreStore.h"

#include "Messages.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

namespace skyrinse::spds {

namespace {

std::atomic<int> g_nextSerial{1};

// The clock of the I/O statistics: read around every panel, so the cheapest.
double wallSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Tries for the window's lock before a thread sleeps on it: some 10 to 30
// microseconds.
constexpr int kLockSpins = 256;

// System calls move at most this much at once.
constexpr std::int64_t kLargestCall = std::int64_t(1) << 30;

std::int64_t megabytesUp(std::int64_t bytes) {
    return bytes / (std::int64_t(1) << 20) + 1;
}

int clampInt(std::int64_t v) {
    return v > 2147483647 ? 2147483647 : static_cast<int>(v);
}

// Reads a run of decimal digits at `p`; false when there is none.
bool digits(const char*& p, long& value) {
    if (*p < '0' || *p > '9') return false;
    value = 0;
    while (*p >= '0' && *p <= '9' && value < 100000000)
        value = value * 10 + (*p++ - '0');
    return *p < '0' || *p > '9';
}

// The process that wrote `name`, when it is one of our file names for this
// stem: <base>_<pid>_<handle>[_<slot>][-<part>].lnz, .unz or .ind; else 0.
long writerOf(const char* name, const std::string& base) {
    if (std::strncmp(name, base.c_str(), base.size()) != 0) return 0;
    const char* p = name + base.size();
    long pid = 0, number = 0;
    if (*p++ != '_' || !digits(p, pid) || *p++ != '_' || !digits(p, number)) return 0;
    if (*p == '_' && !digits(++p, number)) return 0;
    if (*p == '-' && !digits(++p, number)) return 0;
    if (std::strcmp(p, ".lnz") != 0 && std::strcmp(p, ".unz") != 0 && std::strcmp(p, ".ind") != 0)
        return 0;
    return pid;
}

// A process killed outright (SIGKILL, the machine's memory killer) leaves
// its files behind. Those of the same stem whose process no longer exists
// are removed when new files are made; only regular files of this user
// that carry exactly our name pattern, so nothing else in the folder is
// touched. A process id that was taken again by another process keeps its
// files until that one ends.
void removeOrphans(const std::string& stem) {
    const std::size_t slash = stem.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : stem.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? stem : stem.substr(slash + 1);
    const std::unique_ptr<DIR, int (*)(DIR*)> folderStream(::opendir(folder.c_str()), ::closedir);
    DIR* dir = folderStream.get();
    if (!dir) return;
    const long self = static_cast<long>(::getpid());
    while (const dirent* e = ::readdir(dir)) {
        const long pid = writerOf(e->d_name, base);
        if (pid <= 0 || pid == self) continue;
        if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
        struct stat st {};
        if (::fstatat(::dirfd(dir), e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) continue;
        ::unlinkat(::dirfd(dir), e->d_name, 0);
    }
}

[[noreturn]] void fail(int error, int msglvl, int row, const char* tag) {
    if (msglvl > 0) spds_message(0, row, 1, tag);
    throw OocFailure{error};
}

// Both threads take the window's lock about once per update, mostly for
// well under a microsecond: one that finds it taken spins a while before it
// sleeps, since going to sleep and being woken (two system calls and a
// switch, far dearer on a virtual machine) cost more than the wait. With a
// plain lock a factorization of the matting system switched threads some
// 3,000 times.
void acquire(std::unique_lock<std::mutex>& lock) {
    for (int spin = 0; spin < kLockSpins; ++spin) {
        if (lock.try_lock()) return;
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    lock.lock();
}

} // namespace

void OutOfCoreState::configure(int level) {
    msglvl = level;
    if (configured) return;
    config = readOocConfig(level);
    serial = g_nextSerial.fetch_add(1, std::memory_order_relaxed);
    configured = true;
}

OocPlan planOutOfCore(int requested, int limitMb, const OocFigures& f) {
    OocPlan plan;
    const std::int64_t workKb = f.workBytes / 1024 + 1;
    const std::int64_t factorKb = f.factorBytes / 1024 + 1;
    plan.inCoreMb = clampInt((f.analysisKb + workKb + factorKb) / 1024 + 1);
    plan.factorMb = clampInt(factorKb / 1024 + 1);
    plan.workMb = clampInt(workKb / 1024 + 1);
    if (requested == 0) return plan;
    const std::int64_t limit = limitMb;
    if (requested == 1) {
        // In core when the limit holds everything, and the work arrays with
        // the index of every panel besides.
        const std::int64_t indexMb = megabytesUp(8 * f.lindxSize);
        if (limit > plan.inCoreMb && limit > plan.workMb + indexMb + 2) {
            plan.message = 987;
            return plan;
        }
        plan.message = 988;
    } else {
        plan.message = 990;
    }
    plan.active = true;
    // The limit is for the factor's panels: the window, the staging of the
    // files, the tables that say where each panel lies. The analysis and
    // the factorization's work arrays (iparm[62]) come on top, as in core.
    // The window must hold a target and one of its sources, and a source
    // read back may come through a scratch block of a panel's size.
    const std::int64_t base = f.tableBytes;
    const std::int64_t least = 3 * f.largestPanel + 3 * kLeastStaging;
    std::int64_t available = limit * (std::int64_t(1) << 20) - base;
    if (available < least) {
        plan.error = kOocNotEnoughMemory;
        plan.neededKb = (base + least) / 1024 + 1;
        return plan;
    }
    // A sixty-fourth of the window for each file's staging, within bounds:
    // it takes only the panels under 64 KB, which write out of their own
    // blocks, and what it leaves to the window saves sources read back
    // (at 40^3 a tenth less than a sixteenth, up to 2 MB, did).
    plan.stagingBytes = std::clamp(available / 64, kLeastStaging, kStagingBytes);
    available -= 2 * plan.stagingBytes + kLeastStaging + f.largestPanel;
    plan.windowBytes = available;
    // Every panel fits; or the panels of one domain and of the separators
    // above it do, which is what a target ever reads at once; or panels
    // stream. The window code is the same for all three: what differs is
    // how often a dropped panel has to come back.
    if (available >= f.factorBytes)
        plan.mode = 0;
    else if (f.largestBranch > 0 && f.largestBranch <= available)
        plan.mode = 3;
    else
        plan.mode = 2;
    return plan;
}

std::int64_t largestBranch(const std::vector<std::int64_t>& domainBytes,
                           const std::vector<std::int64_t>& separatorBytes) {
    const std::size_t leaves = domainBytes.size();
    if (leaves < 2 || (leaves & (leaves - 1)) != 0 || separatorBytes.size() + 1 != leaves) return 0;
    // Children before parents: the separators come in the order of a walk
    // that finishes both halves of a part before its own separator.
    std::size_t next = 0;
    auto walk = [&](auto&& self, std::size_t first, std::size_t count) -> std::int64_t {
        if (count == 1) return domainBytes[first];
        const std::int64_t left = self(self, first, count / 2);
        const std::int64_t right = self(self, first + count / 2, count / 2);
        return separatorBytes[next++] + std::max(left, right);
    };
    return walk(walk, 0, leaves);
}

// ---- PanelBlock ----

PanelBlock::PanelBlock(std::int64_t bytes)
    : m_data(static_cast<std::byte*>(
          ::operator new(static_cast<std::size_t>(std::max<std::int64_t>(1, bytes))))) {}

void PanelBlock::reset() {
    ::operator delete(m_data);
    m_data = nullptr;
}

// ---- OocFile ----

std::string OocFile::partPath(int k) const {
    if (k == 0) return m_path;
    const std::size_t dot = m_path.rfind('.');
    const std::size_t slash = m_path.rfind('/');
    const bool extension = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    std::string number(1, '-');
    number += std::to_string(k + 1);
    std::string out = m_path;
    out.insert(extension ? dot : out.size(), number);
    return out;
}

void OocFile::createPart(int k, const char* tag, int msglvl) {
    // The name is this handle's: what lies there is a file it kept from an
    // earlier factor, or one of a dead process that had the same pid. The
    // new factor replaces it; O_EXCL then makes sure that the file written
    // is a new one, not something put in its place (a link elsewhere).
    const std::string path = partPath(k);
    ::unlink(path.c_str());
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) fail(kOocOpenFailure, msglvl, 965, tag);
    // Parts are made in the order the writes reach them, not always by number.
    if (m_fds.size() <= static_cast<std::size_t>(k))
        m_fds.resize(static_cast<std::size_t>(k) + 1, -1);
    m_fds[static_cast<std::size_t>(k)] = fd;
    struct stat st {};
    if (m_ids.size() <= static_cast<std::size_t>(k)) m_ids.resize(static_cast<std::size_t>(k) + 1);
    if (::fstat(fd, &st) == 0)
        m_ids[static_cast<std::size_t>(k)] = {static_cast<std::uint64_t>(st.st_dev),
                                              static_cast<std::uint64_t>(st.st_ino)};
    m_parts = std::max(m_parts, k + 1);
}

void OocFile::create(const char* tag, int msglvl, std::int64_t bytes) {
    remove();
    m_ids.clear();
    m_createTag = tag;
    // Further parts of a kept factor of the same name go as well.
    for (int k = 1; ::unlink(partPath(k).c_str()) == 0; ++k) {
    }
    // Every part has its place from the start: a thread that reads one
    // while another makes the next finds the table as it was.
    m_fds.assign(static_cast<std::size_t>(std::max<std::int64_t>(1, (bytes - 1) / m_partBytes + 1)),
                 -1);
    createPart(0, tag, msglvl);
}

// Writing over a factor's files in place costs the page cache nothing, where
// removing them drops every cached page and a new file has every block
// allocated again (measured on the matting system's 125 MB: 9 ms of CPU
// time for the removal and 19 ms for the allocation, a factorization
// taking 170 ms of CPU time in core). Each part must be
// the same file the old factor made (device and inode, one link, a regular
// file of this user, the size it wrote), so what is written over is never
// something put in its place.
bool OocFile::adopt(OocFile& old, std::int64_t bytes) {
    if (m_path.empty() || old.m_path != m_path || old.m_partBytes != m_partBytes || bytes <= 0)
        return false;
    const int parts = static_cast<int>((bytes - 1) / m_partBytes + 1);
    if (old.m_parts != parts || static_cast<int>(old.m_ids.size()) < parts) return false;
    std::vector<int> fds;
    auto undo = [&] {
        for (int fd : fds)
            ::close(fd);
        return false;
    };
    for (int k = 0; k < parts; ++k) {
        const int fd = ::open(partPath(k).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) return undo();
        fds.push_back(fd);
        struct stat st {};
        const std::int64_t size = std::min(m_partBytes, bytes - std::int64_t(k) * m_partBytes);
        const Identity& id = old.m_ids[static_cast<std::size_t>(k)];
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 ||
            st.st_uid != ::geteuid() || static_cast<std::uint64_t>(st.st_dev) != id.device ||
            static_cast<std::uint64_t>(st.st_ino) != id.inode || st.st_size != size)
            return undo();
    }
    close();
    m_fds = std::move(fds);
    m_ids = old.m_ids;
    m_parts = parts;
    // The old owner lets them be.
    old.close();
    old.m_path.clear();
    old.m_parts = 0;
    return true;
}

void OocFile::openRead(const char* tag, int msglvl) {
    close();
    m_fds.assign(static_cast<std::size_t>(std::max(1, m_parts)), -1);
    for (std::size_t k = 0; k < m_fds.size(); ++k) {
        m_fds[k] = ::open(partPath(static_cast<int>(k)).c_str(), O_RDONLY | O_CLOEXEC);
        if (m_fds[k] < 0) fail(kOocOpenFailure, msglvl, 965, tag);
        ::posix_fadvise(m_fds[k], 0, 0, POSIX_FADV_SEQUENTIAL);
    }
}

void OocFile::close() {
    for (int& fd : m_fds) {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
}

void OocFile::remove() {
    close();
    if (m_path.empty()) return;
    for (int k = 0; k < std::max(1, m_parts); ++k)
        ::unlink(partPath(k).c_str());
    m_parts = 0;
}

bool OocFile::exists() const {
    struct stat st {};
    return !m_path.empty() && ::stat(m_path.c_str(), &st) == 0;
}

void OocFile::writeAt(const void* data, std::int64_t bytes, std::int64_t offset, int msglvl) {
    const char* p = static_cast<const char*>(data);
    while (bytes > 0) {
        const int k = static_cast<int>(offset / m_partBytes);
        const std::int64_t within = offset % m_partBytes;
        int fd = -1;
        {
            // Two threads may reach a new part at once.
            std::lock_guard<std::mutex> hold(m_partMutex);
            if (k >= static_cast<int>(m_fds.size()) || m_fds[static_cast<std::size_t>(k)] < 0)
                createPart(k, m_createTag, msglvl);
            fd = m_fds[static_cast<std::size_t>(k)];
        }
        const std::int64_t room = std::min({bytes, kLargestCall, m_partBytes - within});
        const ssize_t w = ::pwrite(fd, p, static_cast<std::size_t>(room), within);
        if (w < 0 && errno == EINTR) continue;
        // A full disk, or the process's file size limit, ends here.
        if (w <= 0) fail(kOocReadWriteFailure, msglvl, 986, "spds_write_ooc_file: Write error");
        p += w;
        bytes -= w;
        offset += w;
    }
}

void OocFile::readAt(void* data, std::int64_t bytes, std::int64_t offset, int msglvl) const {
    char* p = static_cast<char*>(data);
    while (bytes > 0) {
        const std::size_t k = static_cast<std::size_t>(offset / m_partBytes);
        const std::int64_t within = offset % m_partBytes;
        if (k >= m_fds.size() || m_fds[k] < 0)
            fail(kOocReadWriteFailure, msglvl, 981, "spds_read_ooc_file: Read error");
        const std::int64_t room = std::min({bytes, kLargestCall, m_partBytes - within});
        const ssize_t r = ::pread(m_fds[k], p, static_cast<std::size_t>(room), within);
        if (r < 0 && errno == EINTR) continue;
        // A file cut short reads 0 bytes before the panel ends.
        if (r <= 0) fail(kOocReadWriteFailure, msglvl, 981, "spds_read_ooc_file: Read error");
        p += r;
        bytes -= r;
        offset += r;
    }
}

// ---- OutOfCoreFactor ----

OutOfCoreFactor::OutOfCoreFactor(const OutOfCoreState& state, int slot, bool lu, const int* xsup,
                                 const int* xlnz, const int* xlindx, int nsuper,
                                 std::int64_t scalarBytes, OocCounters* io)
    : m_nsuper(nsuper), m_lu(lu), m_keep(state.config.keepFile != 0), m_msglvl(state.msglvl),
      m_staging(std::max(kLeastStaging, state.stagingBytes)), m_scalar(scalarBytes),
      m_xlindx(xlindx), m_io(io) {
    char unique[48];
    if (slot > 1)
        std::snprintf(unique, sizeof unique, "_%ld_%d_%d", static_cast<long>(::getpid()),
                      state.serial, slot);
    else
        std::snprintf(unique, sizeof unique, "_%ld_%d", static_cast<long>(::getpid()),
                      state.serial);
    m_stem = state.config.stem;
    const std::string stem = m_stem + unique;
    m_lnz.setPath(stem + ".lnz");
    m_unz.setPath(lu ? stem + ".unz" : std::string());
    m_ind.setPath(stem + ".ind");
    m_lnz.setPartBytes(state.partBytes);
    m_unz.setPartBytes(state.partBytes);
    m_ind.setPartBytes(state.partBytes);
    const std::size_t count = static_cast<std::size_t>(nsuper) + 1;
    m_lBytes.assign(count, 0);
    m_uBytes.assign(count, 0);
    m_lOffset.assign(count, -1);
    m_uOffset.assign(count, -1);
    m_iOffset.assign(count, -1);
    m_height.assign(count, 0);
    m_width.assign(count, 0);
    for (int sn = 1; sn <= nsuper; ++sn) {
        const int fst = xsup[sn - 1];
        const std::int64_t ws = xsup[sn] - fst;
        const std::int64_t hs = xlnz[fst] - xlnz[fst - 1];
        m_height[static_cast<std::size_t>(sn)] = static_cast<int>(hs);
        m_width[static_cast<std::size_t>(sn)] = static_cast<int>(ws);
        m_lBytes[static_cast<std::size_t>(sn)] = hs * ws * scalarBytes;
        m_uBytes[static_cast<std::size_t>(sn)] = lu ? (hs - ws) * ws * scalarBytes : 0;
        m_largest = std::max(m_largest, panelBytes(sn));
        m_total += panelBytes(sn);
    }
    // Each file holds the panels in the order of the supernodes, the order
    // the solve reads them in.
    std::int64_t l = 0, u = 0, i = 0;
    for (int sn = 1; sn <= nsuper; ++sn) {
        const std::size_t k = static_cast<std::size_t>(sn);
        m_lOffset[k] = l;
        m_uOffset[k] = u;
        m_iOffset[k] = i;
        l += m_lBytes[k];
        u += m_uBytes[k];
        i += indexBytes(sn);
    }
}

OutOfCoreFactor::~OutOfCoreFactor() {
    m_lnz.close();
    m_unz.close();
    m_ind.close();
    if (m_keep && m_complete) return;
    m_lnz.remove();
    m_unz.remove();
    m_ind.remove();
}

std::vector<std::string> OutOfCoreFactor::paths() const {
    std::vector<std::string> out;
    for (const OocFile* f : {&m_lnz, &m_unz, &m_ind}) {
        if (f == &m_unz && !m_lu) continue;
        for (int k = 0; k < std::max(1, f->parts()); ++k)
            out.push_back(f->partPath(k));
    }
    return out;
}

void OutOfCoreFactor::createFiles(const int* lindx, int streams, OutOfCoreFactor* previous) {
    // Kept files are meant to stay, whoever left them.
    if (!m_keep) removeOrphans(m_stem);
    m_lindx = lindx;
    const std::size_t end = static_cast<std::size_t>(m_nsuper);
    auto make = [&](OocFile& file, OocFile* old, const char* tag, std::int64_t bytes) {
        if (!old || !previous->complete() || !file.adopt(*old, bytes))
            file.create(tag, m_msglvl, bytes);
    };
    make(m_lnz, previous ? &previous->m_lnz : nullptr, "fact. step: open file for storing lnz",
         m_lOffset[end] + m_lBytes[end]);
    if (m_lu)
        make(m_unz, previous ? &previous->m_unz : nullptr, "fact. step: open file for storing unz",
             m_uOffset[end] + m_uBytes[end]);
    make(m_ind, previous ? &previous->m_ind : nullptr, "do_all: open file for storing lindx",
         m_iOffset[end] + indexBytes(m_nsuper));
    // Two streams a thread: one filling while the other goes out.
    startWriter(m_lw, m_staging, 2 * streams);
    if (m_lu) startWriter(m_uw, m_staging, 2 * streams);
    // Index lists are a small fraction of the panels' bytes.
    startWriter(m_iw, kLeastStaging, 2 * streams);
    m_scratch = PanelBlock(m_largest);
}

void OutOfCoreFactor::startWriter(Writer& w, std::int64_t bytes, int streams) {
    const int count = std::max(1, streams);
    w.capacity = std::max<std::int64_t>(4096, bytes / count);
    w.streams.clear();
    w.streams.resize(static_cast<std::size_t>(count));
    for (Stream& s : w.streams)
        s.staging = PanelBlock(w.capacity);
}

// Every panel has its place in the file from the start (the supernodes'
// order, the order of the solve), whichever thread finishes it when. A
// panel that continues a stream's run joins it; another starts an empty
// stream, else the one used least recently (written out at once: a thread
// that moved to another part of the tree). A stream that fills is handed
// back (`full`) for the caller to write with the lock let go: meanwhile it
// takes nothing new and its bytes stay readable. False when the caller
// writes the bytes itself: from kDirectBytes (or a stream's size) on, or
// every stream on its way out.
bool OutOfCoreFactor::put(OocFile& file, Writer& w, const std::byte* data, std::int64_t bytes,
                          std::int64_t offset, Stream*& full) {
    full = nullptr;
    Stream* target = nullptr;
    for (Stream& s : w.streams)
        if (!s.flushing && s.staged > 0 && s.base + s.staged == offset) target = &s;
    // A large panel goes out from its own block with the window's lock let
    // go: copying it into the staging, under the lock, would cost more than
    // the system call it saves.
    const bool direct = bytes >= std::min(w.capacity, kDirectBytes);
    if (target && (direct || target->staged + bytes > w.capacity)) {
        target->flushing = true;
        full = target;
        target = nullptr;
    }
    if (!target && direct) return false;
    if (!target) {
        for (Stream& s : w.streams) {
            if (s.flushing) continue;
            if (!target || (target->staged > 0 && (s.staged == 0 || s.lastUse < target->lastUse)))
                target = &s;
        }
        if (!target) return false;
        flush(file, *target);
        target->base = offset;
    }
    std::memcpy(target->staging.get() + target->staged, data, static_cast<std::size_t>(bytes));
    target->staged += bytes;
    target->lastUse = ++w.uses;
    return true;
}

void OutOfCoreFactor::flush(OocFile& file, Stream& s) {
    if (s.staged == 0) return;
    const double t0 = wallSeconds();
    file.writeAt(s.staging.get(), s.staged, s.base, m_msglvl);
    m_io->writeSeconds += wallSeconds() - t0;
    m_io->bytesWritten += s.staged;
    s.staged = 0;
}

void OutOfCoreFactor::flushAll(OocFile& file, Writer& w) {
    for (Stream& s : w.streams)
        flush(file, s);
    w.streams.clear();
}

const std::byte* OutOfCoreFactor::staged(const Writer& w, std::int64_t offset, std::int64_t bytes) {
    for (const Stream& s : w.streams)
        if (offset >= s.base && offset + bytes <= s.base + s.staged)
            return s.staging.get() + (offset - s.base);
    return nullptr;
}

// The small sides of a panel go to the staging under the window's lock;
// one as large as a stream is written with the lock released, so that the
// other threads go on meanwhile (the panel is held until it is written).
void OutOfCoreFactor::append(int sn, const std::byte* panel, std::unique_lock<std::mutex>& lock) {
    const std::size_t k = static_cast<std::size_t>(sn);
    // What goes out with the lock let go: panels as large as a stream, and
    // the streams they and the others filled.
    struct Write {
        OocFile* file;
        const std::byte* data;
        std::int64_t bytes, offset;
        Stream* stream; // set when the bytes are a stream's
    } writes[6];
    int count = 0;
    auto stage = [&](OocFile& file, Writer& w, const std::byte* data, std::int64_t bytes,
                     std::int64_t offset) {
        Stream* full = nullptr;
        if (!put(file, w, data, bytes, offset, full))
            writes[count++] = {&file, data, bytes, offset, nullptr};
        if (full) writes[count++] = {&file, full->staging.get(), full->staged, full->base, full};
    };
    stage(m_lnz, m_lw, panel, m_lBytes[k], m_lOffset[k]);
    stage(m_ind, m_iw, reinterpret_cast<const std::byte*>(m_lindx + m_xlindx[sn - 1] - 1),
          indexBytes(sn), m_iOffset[k]);
    if (m_lu) stage(m_unz, m_uw, panel + m_lBytes[k], m_uBytes[k], m_uOffset[k]);
    if (count == 0) return;
    lock.unlock();
    const double t0 = wallSeconds();
    std::int64_t bytes = 0;
    try {
        for (int i = 0; i < count; ++i) {
            writes[i].file->writeAt(writes[i].data, writes[i].bytes, writes[i].offset, m_msglvl);
            bytes += writes[i].bytes;
        }
    } catch (...) {
        acquire(lock);
        throw;
    }
    const double t = wallSeconds() - t0;
    acquire(lock);
    for (int i = 0; i < count; ++i)
        if (Stream* s = writes[i].stream) {
            s->staged = 0;
            s->flushing = false;
        }
    m_io->writeSeconds += t;
    m_io->bytesWritten += bytes;
}

// Rows first .. first + m - 1 of `cols` columns of height ld, stored by
// columns from `offset`, into `to` by columns (ld m), when they are still
// in a staging stream; false when they are in the file.
bool OutOfCoreFactor::copyStaged(const Writer& w, const ColumnRead& r) const {
    const std::int64_t item = m_scalar;
    const std::int64_t column = r.m * item;
    const std::byte* copy =
        staged(w, r.offset + r.first * item, ((r.cols - 1) * r.ld + r.m) * item);
    if (!copy) return false;
    for (std::int64_t j = 0; j < r.cols; ++j)
        std::memcpy(r.to + j * column, copy + j * r.ld * item, static_cast<std::size_t>(column));
    return true;
}

// The same from the file. Columns that lie close together come in one read
// of the span that covers them, copied from there; far apart (a few rows at
// the end of tall columns) one read each, straight into place, so that the
// rows nobody needs are not copied. Returns the bytes read.
std::int64_t OutOfCoreFactor::readColumns(const OocFile& file, const ColumnRead& r) {
    const std::int64_t item = m_scalar;
    const std::int64_t column = r.m * item;
    const std::int64_t start = r.offset + r.first * item;
    const std::int64_t span = ((r.cols - 1) * r.ld + r.m) * item;
    if (r.m == r.ld) {
        file.readAt(r.to, span, start, m_msglvl);
        return span;
    }
    if (span - r.cols * column <= r.cols * kNearColumns) {
        std::lock_guard<std::mutex> hold(m_scratchMutex);
        file.readAt(m_scratch.get(), span, start, m_msglvl);
        for (std::int64_t j = 0; j < r.cols; ++j)
            std::memcpy(r.to + j * column, m_scratch.get() + j * r.ld * item,
                        static_cast<std::size_t>(column));
        return span;
    }
    for (std::int64_t j = 0; j < r.cols; ++j)
        file.readAt(r.to + j * column, column, start + j * r.ld * item, m_msglvl);
    return r.cols * column;
}

void OutOfCoreFactor::readBack(int sn, int from, std::byte* panel,
                               std::unique_lock<std::mutex>& lock) {
    const std::size_t k = static_cast<std::size_t>(sn);
    const std::int64_t hs = m_height[k], ws = m_width[k];
    const std::int64_t m = hs - from; // rows wanted of each side
    struct Side {
        const OocFile* file;
        ColumnRead read;
    } pending[2];
    int count = 0;
    const ColumnRead l{m_lOffset[k], hs, from, m, ws, panel};
    if (!copyStaged(m_lw, l)) pending[count++] = {&m_lnz, l};
    if (m_lu) {
        const ColumnRead u{m_uOffset[k], hs - ws, from - ws, m, ws, panel + m * ws * m_scalar};
        if (!copyStaged(m_uw, u)) pending[count++] = {&m_unz, u};
    }
    if (count == 0) return;
    lock.unlock();
    const double t0 = wallSeconds();
    std::int64_t bytes = 0;
    try {
        for (int i = 0; i < count; ++i)
            bytes += readColumns(*pending[i].file, pending[i].read);
    } catch (...) {
        acquire(lock);
        throw;
    }
    const double t = wallSeconds() - t0;
    acquire(lock);
    m_io->factorReadSeconds += t;
    m_io->factorBytesRead += bytes;
}

void OutOfCoreFactor::finishWriting() {
    flushAll(m_lnz, m_lw);
    if (m_lu) flushAll(m_unz, m_uw);
    flushAll(m_ind, m_iw);
    m_scratch.reset();
    m_lnz.close();
    m_unz.close();
    m_ind.close();
    m_lindx = nullptr;
    m_complete = true;
}

void OutOfCoreFactor::readIndex(int* lindx) const {
    m_ind.openRead("fact. step: open file for reading lindx", m_msglvl);
    const double t0 = wallSeconds();
    // Supernodes whose lists lie side by side in the file and in the array
    // go in one read: all of them when one thread wrote the factor.
    for (int sn = 1; sn <= m_nsuper;) {
        const std::int64_t offset = indexOffset(sn);
        std::int64_t bytes = indexBytes(sn);
        int next = sn + 1;
        while (next <= m_nsuper && indexOffset(next) == offset + bytes) {
            bytes += indexBytes(next);
            ++next;
        }
        m_ind.readAt(lindx + m_xlindx[sn - 1] - 1, bytes, offset, m_msglvl);
        m_io->factorBytesRead += bytes;
        sn = next;
    }
    m_io->factorReadSeconds += wallSeconds() - t0;
    m_ind.close();
}

void OutOfCoreFactor::openForReading() const {
    m_lnz.openRead("solution step: open file for reading lnz", m_msglvl);
    if (m_lu) m_unz.openRead("solution step: open file for reading unz", m_msglvl);
    m_ind.openRead("solution step: open file for reading lindx", m_msglvl);
}

void OutOfCoreFactor::closeFiles() const {
    m_lnz.close();
    m_unz.close();
    m_ind.close();
}

void OutOfCoreFactor::readL(void* to, std::int64_t bytes, std::int64_t offset) const {
    m_lnz.readAt(to, bytes, offset, m_msglvl);
}

void OutOfCoreFactor::readU(void* to, std::int64_t bytes, std::int64_t offset) const {
    m_unz.readAt(to, bytes, offset, m_msglvl);
}

void OutOfCoreFactor::readRows(void* to, std::int64_t bytes, std::int64_t offset) const {
    m_ind.readAt(to, bytes, offset, m_msglvl);
}

// ---- PanelWindow ----

PanelWindow::PanelWindow(OutOfCoreFactor& files, std::int64_t budget, std::vector<int> xreaders,
                         std::vector<int> readers, std::vector<int> rows)
    : m_files(files), m_budget(budget), m_xreaders(std::move(xreaders)),
      m_readers(std::move(readers)), m_rows(std::move(rows)),
      m_read(m_xreaders.begin(), m_xreaders.end() - 1),
      m_slots(static_cast<std::size_t>(files.nsuper()) + 1),
      m_at(static_cast<std::size_t>(files.nsuper()) + 1, nullptr) {}

// A block is kept for a later panel of about its size, as long as the
// budget has room: mapping fresh pages for every panel read back costs more
// than the read. A panel dropped for room hands its block on when it fits.
void PanelWindow::drop(int sn) {
    Slot& s = m_slots[static_cast<std::size_t>(sn)];
    if (!s.data) return;
    if (s.listed) m_idle.erase(s.place);
    s.listed = false;
    m_at[static_cast<std::size_t>(sn)] = nullptr;
    m_resident -= s.capacity;
    if (m_resident + m_pooled + s.capacity <= m_budget) {
        m_pooled += s.capacity;
        m_pool.emplace(s.capacity, std::move(s.data));
    }
    s.data.reset();
    s.capacity = 0;
}

std::byte* PanelWindow::allocate(int sn, std::int64_t wanted) {
    const std::int64_t bytes = std::max<std::int64_t>(1, wanted);
    auto fits = [bytes](std::int64_t capacity) {
        return capacity >= bytes && capacity <= 2 * bytes;
    };
    Slot& s = m_slots[static_cast<std::size_t>(sn)];
    auto reuse = m_pool.lower_bound(bytes);
    if (reuse != m_pool.end() && fits(reuse->first)) {
        s.capacity = reuse->first;
        s.data = std::move(reuse->second);
        m_pooled -= reuse->first;
        m_pool.erase(reuse);
    }
    // Room: pooled blocks go first, then the idle panels read last. Only
    // idle panels are dropped, so the budget is exceeded by what the
    // threads hold at once when it must be.
    const std::int64_t growth = s.data ? 0 : bytes;
    while (m_resident + m_pooled + growth > m_budget) {
        const int victim = m_idle.empty() ? 0 : std::prev(m_idle.end())->second;
        Slot& v = m_slots[static_cast<std::size_t>(victim)];
        if (victim != 0 && !s.data && fits(v.capacity)) {
            const std::int64_t capacity = v.capacity;
            s.data = std::move(v.data);
            s.capacity = capacity;
            v.capacity = 0;
            m_idle.erase(v.place);
            v.listed = false;
            m_at[static_cast<std::size_t>(victim)] = nullptr;
            m_resident -= capacity;
            break;
        }
        if (!m_pool.empty()) {
            auto largest = std::prev(m_pool.end());
            m_pooled -= largest->first;
            m_pool.erase(largest);
            continue;
        }
        if (victim == 0) break;
        drop(victim);
    }
    if (!s.data) {
        s.data = PanelBlock(bytes);
        s.capacity = bytes;
    }
    s.pins = 1;
    m_at[static_cast<std::size_t>(sn)] = s.data.get();
    m_resident += s.capacity;
    m_peak = std::max(m_peak, m_resident + m_pooled);
    return s.data.get();
}

// Keeps only the rows from `row` down of an idle panel, when that frees at
// least a quarter of its block: the rows above are read by nobody any more,
// and the room they free keeps other panels from being read back (at 40^3
// a sixth less read back than trimming only at half; the copy is cheaper
// than the reads it saves).
void PanelWindow::trim(int sn, int row) {
    Slot& s = m_slots[static_cast<std::size_t>(sn)];
    if (!s.data || row <= s.from) return;
    const std::int64_t bytes = m_files.tailBytes(sn, row);
    if (4 * bytes > 3 * s.capacity) return;
    const std::int64_t hd = m_files.height(sn), wd = m_files.width(sn);
    const std::int64_t item = m_files.scalarBytes();
    const std::int64_t m = hd - row;
    PanelBlock block(bytes);
    const std::byte* old = s.data.get();
    // L by columns from row s.from (ld hd - s.from); U after it, whole
    // (ld hd - wd) while the panel has not been cut yet, else as L.
    const std::int64_t ldl = hd - s.from;
    const std::int64_t ldu = s.from == 0 ? hd - wd : ldl;
    const std::int64_t uFirst = s.from == 0 ? 0 : s.from - wd;
    const std::byte* oldU = old + ldl * wd * item;
    std::byte* newU = block.get() + m * wd * item;
    for (std::int64_t j = 0; j < wd; ++j) {
        std::memcpy(block.get() + j * m * item, old + (j * ldl + row - s.from) * item,
                    static_cast<std::size_t>(m * item));
        if (m_files.lu())
            std::memcpy(newU + j * m * item, oldU + (j * ldu + row - wd - uFirst) * item,
                        static_cast<std::size_t>(m * item));
    }
    m_resident += bytes - s.capacity;
    s.data = std::move(block);
    s.capacity = bytes;
    s.from = row;
    m_at[static_cast<std::size_t>(sn)] = nullptr;
}

void PanelWindow::release(int sn) {
    Slot& s = m_slots[static_cast<std::size_t>(sn)];
    if (--s.pins > 0) return;
    const int next = nextReader(sn);
    if (next == INT_MAX) {
        drop(sn);
        return;
    }
    trim(sn, m_rows[static_cast<std::size_t>(m_read[static_cast<std::size_t>(sn)])]);
    s.place = m_idle.emplace(next, sn).first;
    s.listed = true;
}

std::unique_lock<std::mutex> PanelWindow::hold() {
    std::unique_lock<std::mutex> lock(m_mutex, std::defer_lock);
    acquire(lock);
    return lock;
}

void PanelWindow::served(int d) {
    ++m_read[static_cast<std::size_t>(d)];
    release(d);
}

std::byte* PanelWindow::target(int sn) {
    const std::unique_lock<std::mutex> lock = hold();
    m_slots[static_cast<std::size_t>(sn)].from = 0;
    return allocate(sn, m_files.panelBytes(sn));
}

PanelWindow::Rows PanelWindow::load(int d, int from, int done) {
    std::unique_lock<std::mutex> lock = hold();
    if (done != 0) {
        served(done);
        m_unpinned.notify_all();
    }
    Slot& s = m_slots[static_cast<std::size_t>(d)];
    // Readers come in the order of their rows, except when threads run two
    // of them at once: a later reader may have read back fewer rows than an
    // earlier one needs. Then the rows are read again once nobody holds them.
    // A panel on its way in is waited for, not read twice.
    while (!m_failed && s.data && (s.loading || (s.from > from && s.pins > 0)))
        m_unpinned.wait(lock);
    if (m_failed) throw OocFailure{kOocReadWriteFailure};
    if (s.data && s.from > from) drop(d);
    if (s.data) {
        if (s.listed) m_idle.erase(s.place);
        s.listed = false;
        ++s.pins;
        return {s.data.get(), s.from};
    }
    std::byte* p = allocate(d, m_files.tailBytes(d, from));
    s.from = from;
    s.loading = true;
    try {
        m_files.readBack(d, from, p, lock);
    } catch (...) {
        failed(lock);
        throw;
    }
    s.loading = false;
    lock.unlock();
    m_unpinned.notify_all();
    return {p, from};
}

void PanelWindow::used(int d) {
    {
        const std::unique_lock<std::mutex> lock = hold();
        served(d);
    }
    m_unpinned.notify_all();
}

void PanelWindow::finish(int sn, int done) {
    std::unique_lock<std::mutex> lock = hold();
    if (done != 0) {
        served(done);
        m_unpinned.notify_all();
    }
    try {
        m_files.append(sn, m_slots[static_cast<std::size_t>(sn)].data.get(), lock);
    } catch (...) {
        failed(lock);
        throw;
    }
    release(sn);
}

// A read or write that failed ends the factorization: whoever waits for a
// panel gives up instead of waiting for one that never comes.
void PanelWindow::failed(std::unique_lock<std::mutex>& lock) {
    m_failed = true;
    lock.unlock();
    m_unpinned.notify_all();
}

// ---- PanelReader ----

PanelReader::PanelReader(const OutOfCoreFactor& files, std::int64_t chunkBytes, std::int64_t budget)
    : m_files(files) {
    // A chunk holds the panels and their index lists.
    auto bytesOf = [&](int sn) { return files.panelBytes(sn) + files.indexBytes(sn); };
    std::int64_t largest = 0;
    for (int sn = 1; sn <= files.nsuper(); ++sn)
        largest = std::max(largest, bytesOf(sn));
    const std::int64_t limit = std::max(chunkBytes, largest);
    std::int64_t sum = 0;
    m_bounds.push_back(1);
    for (int sn = 1; sn <= files.nsuper(); ++sn) {
        const std::int64_t b = bytesOf(sn);
        if (sum > 0 && sum + b > limit) {
            m_bounds.push_back(sn);
            m_capacity = std::max(m_capacity, sum);
            sum = 0;
        }
        sum += b;
    }
    m_capacity = std::max<std::int64_t>({m_capacity, sum, 1});
    m_bounds.push_back(files.nsuper() + 1);
    const std::int64_t fit = std::clamp<std::int64_t>(budget / m_capacity, 2, chunks());
    m_chunks.resize(static_cast<std::size_t>(std::max<std::int64_t>(1, fit)));
    for (Chunk& c : m_chunks)
        c.data = PanelBlock(m_capacity);
}

PanelReader::~PanelReader() {
    stop();
}

void PanelReader::stop() {
    if (!m_thread.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    m_thread.join();
    m_current = nullptr;
}

void PanelReader::start(bool ascending) {
    stop();
    m_ascending = ascending;
    m_stop = false;
    m_error = 0;
    m_chunk = 0;
    m_current = nullptr;
    // What the last sweep left in the buffers is kept when the new sweep
    // needs it before any buffer would have to be filled anew: chunks of
    // the first places only, so the read-ahead never waits behind them.
    const int first = static_cast<int>(m_chunks.size());
    for (Chunk& c : m_chunks) {
        c.pending = false;
        if (!c.ready) c.id = -1; // a fill that a failure or a stop cut short
        if (c.id < 0) continue;
        const int place = ascending ? c.id : chunks() - 1 - c.id;
        if (place < first) {
            c.pending = true;
        } else {
            c.id = -1;
            c.ready = false;
        }
    }
    m_thread = std::thread([this] { run(); });
}

// Reads chunk c (its id set) into its block: per file one read of each run
// of panels that lie side by side (the whole chunk, as the files hold the
// panels in order). The L side, then U, then the index lists.
void PanelReader::fill(Chunk& c) {
    const int lo = m_bounds[static_cast<std::size_t>(c.id)];
    const int hi = m_bounds[static_cast<std::size_t>(c.id) + 1];
    const std::size_t count = static_cast<std::size_t>(hi - lo);
    c.l.assign(count, nullptr);
    c.u.assign(count, nullptr);
    c.rows.assign(count, nullptr);
    enum Side { kL, kU, kRows };
    auto offsetOf = [&](Side side, int sn) {
        return side == kL   ? m_files.lOffset(sn)
               : side == kU ? m_files.uOffset(sn)
                            : m_files.indexOffset(sn);
    };
    auto bytesOf = [&](Side side, int sn) {
        return side == kL   ? m_files.lBytes(sn)
               : side == kU ? m_files.uBytes(sn)
                            : m_files.indexBytes(sn);
    };
    auto read = [&](Side side, std::byte* to, std::int64_t bytes, std::int64_t offset) {
        if (side == kL)
            m_files.readL(to, bytes, offset);
        else if (side == kU)
            m_files.readU(to, bytes, offset);
        else
            m_files.readRows(to, bytes, offset);
    };
    // The panels of a side lie in the chunk in the order of the supernodes,
    // as in the file: each run of them that lies side by side there comes
    // in one read, straight into place.
    auto readSide = [&](Side side, std::byte* at) {
        std::vector<std::byte*>& ptr = side == kL ? c.l : side == kU ? c.u : c.rows;
        std::byte* p = at;
        for (int sn = lo; sn < hi;) {
            const std::int64_t start = offsetOf(side, sn);
            std::int64_t sum = 0;
            int end = sn;
            while (end < hi && offsetOf(side, end) == start + sum)
                sum += bytesOf(side, end++);
            if (sum > 0) read(side, p, sum, start);
            for (; sn < end; ++sn) {
                ptr[static_cast<std::size_t>(sn - lo)] = p;
                p += bytesOf(side, sn);
            }
        }
        return p;
    };
    std::byte* after = readSide(kL, c.data.get());
    if (m_files.lu()) after = readSide(kU, after);
    readSide(kRows, after);
}

void PanelReader::run() {
    OocCounters& io = m_files.counters();
    for (int k = 0; k < chunks(); ++k) {
        const int id = chunkAt(k);
        Chunk* c = nullptr;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            auto held = [&](const Chunk& x) { return x.id == id; };
            if (std::any_of(m_chunks.begin(), m_chunks.end(), held)) continue;
            // A buffer the sweep is done with: an empty one, else the one
            // it was done with first, so that the chunks at the end of the
            // sweep stay for the next one.
            auto place = [&](const Chunk& x) { return m_ascending ? x.id : chunks() - 1 - x.id; };
            auto find = [&] {
                Chunk* best = nullptr;
                for (Chunk& x : m_chunks) {
                    if (x.pending) continue;
                    if (x.id < 0) return &x;
                    if (!best || place(x) < place(*best)) best = &x;
                }
                return best;
            };
            m_changed.wait(lock, [&] { return m_stop || (c = find()) != nullptr; });
            if (m_stop) return;
            c->id = id;
            c->ready = false;
            c->pending = true;
        }
        int error = 0;
        const double t0 = wallSeconds();
        try {
            fill(*c);
        } catch (const OocFailure& f) {
            error = f.error;
        }
        std::int64_t bytes = 0;
        for (int sn = m_bounds[static_cast<std::size_t>(id)];
             sn < m_bounds[static_cast<std::size_t>(id) + 1]; ++sn)
            bytes += m_files.panelBytes(sn) + m_files.indexBytes(sn);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            io.solveReadSeconds += wallSeconds() - t0;
            io.solveBytesRead += bytes;
            m_error = error;
            c->ready = error == 0;
            if (error != 0) c->id = -1;
        }
        m_changed.notify_all();
        if (error != 0) return;
    }
}

PanelReader::Panels PanelReader::next() {
    // The caller has worked on the last panel handed out until now: a
    // finished chunk goes back to the reader, its panels still in it for
    // the next sweep.
    if (m_current && m_left == 0) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_current->pending = false;
        }
        m_changed.notify_all();
        m_current = nullptr;
        ++m_chunk;
    }
    if (!m_current) {
        const int id = chunkAt(m_chunk);
        std::unique_lock<std::mutex> lock(m_mutex);
        auto ready = [&] {
            for (Chunk& x : m_chunks)
                if (x.id == id && x.ready) return &x;
            return static_cast<Chunk*>(nullptr);
        };
        m_changed.wait(lock, [&] { return (m_current = ready()) != nullptr || m_error != 0; });
        if (!m_current) throw OocFailure{m_error};
        const int lo = m_bounds[static_cast<std::size_t>(id)];
        const int hi = m_bounds[static_cast<std::size_t>(id) + 1];
        m_left = hi - lo;
        m_sn = m_ascending ? lo : hi - 1;
    }
    const int sn = m_sn;
    m_sn += m_ascending ? 1 : -1;
    --m_left;
    const std::size_t i =
        static_cast<std::size_t>(sn - m_bounds[static_cast<std::size_t>(m_current->id)]);
    return {sn, m_current->l[i], m_current->u[i], reinterpret_cast<const int*>(m_current->rows[i])};
}

} // namespace skyrinse::spds
