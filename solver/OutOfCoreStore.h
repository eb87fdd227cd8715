// The out-of-core factor: panels of L (and U) in temporary files.
//
// When a handle's analysis decides on the out-of-core mode (planOutOfCore,
// from iparm[59] and the memory limit of OutOfCoreConfig.h), the numeric
// factorization keeps only a window of panels in memory (PanelWindow) and
// appends every finished panel to the files of its factor slot; the solve
// streams them back in order with read-ahead (PanelReader), each panel with
// its row indices. Everything else (pivots, work arrays, the rest of the
// structure) stays in memory as in core.
//
// Files. Per factor slot one file of L panels (".lnz"), for LU one of U
// panels (".unz"), and one of the row indices of each supernode (".ind",
// 4-byte integers), raw items in machine order, no header. The factorization
// works with the analysis's index array in memory and writes each
// supernode's list beside its panel; once the factor is complete the array
// leaves memory, the solve reads the lists with the panels, and the next
// factorization of the analysis reads the array back whole first. Each panel is
// stored as memory holds it (by columns), and the panels in the order of the
// supernodes, each at a place fixed before the factorization starts,
// whichever thread finishes it when: the order in which the solve reads
// them, so that a chunk of consecutive panels is one read per file and
// lands in place as it is. A source read back by the factorization wants
// only the rows from a given one down of each column: the span over its
// columns in one read when little in it is unwanted, else one read per
// column. Names are
// <stem>_<pid>_<handle>.lnz for slot 1, <stem>_<pid>_<handle>_<slot>.lnz for
// the others (.unz and .ind alike): created with O_EXCL, so two handles or two processes never
// share a file. An OutOfCoreFactor owns its files: destroying it (phase 0 or
// -1, a new analysis, a new factorization of the slot, a failed one)
// removes them, unless keeping was asked for and the factor is complete.
// Files are closed between calls and reopened by name by the solve, so a
// file removed in between is an open failure, not a stale read.
//
// Errors are thrown as OocFailure inside the solver and never cross the C
// entry: -10 a file cannot be created or opened, -11 a read or write failed
// (disk full, file size limit, short file). -9 comes from the plan: the
// limit leaves no room for three of the largest panels (a target, a source
// and the scratch panel that takes the span of a source's columns).
//
// Memory. The limit (SPDS_OOC_MAX_CORE_SIZE) bounds what stands in for the
// in-core values: the window, the staging buffers, the reader's chunks and
// the per-supernode tables. The index array is in memory during the
// factorization, as in core, and not afterwards. The analysis's arrays and the factorization's
// work arrays (update buffer, index maps, the matrix entries by column;
// iparm[62] estimates them) are needed in core as well and come on top.
// The window holds at most its budget in panels (more only while the
// threads hold more at once), the staging of each value file (a sixty-fourth
// of the window, 64 KB to 512 KB; 64 KB for the index file, shared by two
// streams a thread, each filling one run of the file while another goes
// out) turns small panels into large writes, and the solve's reader holds as many
// chunks of consecutive panels with their indices as the window has room
// for, each at most an eighth of it, and never fewer than two (a chunk is
// one panel when that is larger). Panel blocks come from
// the heap (PanelBlock), outside the handle's counters.
//
// Threads: the factorization's threads share the window (one lock, released
// while a panel is read back or a large one written, so that one thread's
// wait for the disk does not stop the other; a panel on its way in is
// marked, and whoever wants it waits for it); the solve uses the reader
// from one thread, whose own thread only fills chunks.
#pragma once

#include "OutOfCoreConfig.h"

#include <climits>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace skyrinse::spds {

inline constexpr int kOocNotEnoughMemory = -9;
inline constexpr int kOocOpenFailure = -10;
inline constexpr int kOocReadWriteFailure = -11;
inline constexpr std::int64_t kStagingBytes = std::int64_t(512) << 10;
inline constexpr std::int64_t kLeastStaging = std::int64_t(64) << 10;
// Panels from this size on are written from their own block, not staged.
inline constexpr std::int64_t kDirectBytes = std::int64_t(64) << 10;
// A read back takes the span over the columns it wants when the rows it
// does not want come to at most this per column; else one read per column.
inline constexpr std::int64_t kNearColumns = std::int64_t(8) << 10;
// No part of a file grows beyond this, for the file systems and tools that
// stop at 2 GB.
inline constexpr std::int64_t kLargestPart = 2147483647;

struct OocFailure {
    int error; // -9, -10 or -11
};

// A block of bytes for panels, from the heap: a block given back is taken
// again by the next panel of about its size, where a fresh mapping of the
// system would fault in and clear every page anew (measured: a third more
// CPU time for the factorization).
class PanelBlock {
public:
    PanelBlock() = default;
    explicit PanelBlock(std::int64_t bytes);
    ~PanelBlock() { reset(); }
    PanelBlock(PanelBlock&& other) noexcept { swap(other); }
    PanelBlock& operator=(PanelBlock&& other) noexcept {
        PanelBlock(std::move(other)).swap(*this);
        return *this;
    }
    void reset();
    void swap(PanelBlock& other) noexcept { std::swap(m_data, other.m_data); }
    std::byte* get() const { return m_data; }
    explicit operator bool() const { return m_data != nullptr; }

private:
    std::byte* m_data = nullptr;
};

struct OocCounters {
    std::int64_t bytesWritten = 0;
    std::int64_t factorBytesRead = 0; // panels read back by the factorization
    std::int64_t solveBytesRead = 0;
    double writeSeconds = 0;
    double factorReadSeconds = 0;
    double solveReadSeconds = 0;
};

// What a handle knows of the out-of-core mode.
struct OutOfCoreState {
    bool configured = false;
    OocConfig config;
    int serial = 0;      // this handle's number in the process
    bool active = false; // the current analysis keeps its factors in files
    int mode = -1;       // iparm[55]: -1 none, 0 the window holds every panel, 3 it holds
                         // the largest branch of the dissection, 2 panels stream
    int parts = 0;       // with mode 3: the dissection's domains
    std::int64_t windowBytes = 0;
    std::int64_t stagingBytes = 0;
    int status = 0; // -9, -10, -11 of the last call, 0 otherwise
    int msglvl = 0;
    std::int64_t partBytes = kLargestPart; // tests make it small
    OocCounters io;

    // Reads the configuration the first time the mode is asked for.
    void configure(int msglvl);
};

// The sizes the decision needs, from the analysis.
struct OocFigures {
    std::int64_t analysisKb = 0;   // permanent memory of the analysis
    std::int64_t factorBytes = 0;  // values of L and U
    std::int64_t workBytes = 0;    // the factorization's other arrays
    std::int64_t lindxSize = 0;    // row indices of the supernodes
    std::int64_t largestPanel = 0; // bytes of the largest L+U panel
    std::int64_t tableBytes = 0;   // where each panel lies, how often it is read
    // The dissection's parts as a binary tree (a domain, then the
    // separators above it up to the root): the largest sum of panel bytes
    // along one such branch; 0 when the parts do not form that tree.
    std::int64_t largestBranch = 0;
    int parts = 0; // domains of that tree
};

struct OocPlan {
    bool active = false;
    int mode = -1;
    std::int64_t windowBytes = 0;
    std::int64_t stagingBytes = 0;
    int error = 0;             // -9 when the limit is too small
    std::int64_t neededKb = 0; // with -9: what the limit would have to hold
    int inCoreMb = 0;          // iparm[60]
    int factorMb = 0;          // iparm[61]
    int workMb = 0;            // iparm[62]
    int message = 0;           // 987 to 990, 0 for none
};

// requested: iparm[59] (0, 1 or 2); limitMb: the configured limit.
OocPlan planOutOfCore(int requested, int limitMb, const OocFigures& figures);

// The largest branch of a dissection into `domains` parts (a power of 2)
// given the bytes of each domain and of each separator in the order the
// dissection numbers them (children before their parent); 0 when the
// counts do not make a whole binary tree.
std::int64_t largestBranch(const std::vector<std::int64_t>& domainBytes,
                           const std::vector<std::int64_t>& separatorBytes);

// One temporary file, in parts of at most partBytes each: "<name>.lnz",
// then "<name>-2.lnz", "<name>-3.lnz" and so on, made as the writes reach
// them; a run of bytes may continue in the next part. Closing does not
// remove it (its owner decides).
class OocFile {
public:
    OocFile() = default;
    explicit OocFile(std::string path) : m_path(std::move(path)) {}
    ~OocFile() { close(); }
    void setPartBytes(std::int64_t bytes) { m_partBytes = std::max<std::int64_t>(1, bytes); }
    int parts() const { return m_parts; }
    std::string partPath(int k) const; // k from 0
    OocFile(const OocFile&) = delete;
    OocFile& operator=(const OocFile&) = delete;

    void create(const char* tag, int msglvl, std::int64_t bytes); // exclusive; -10
    // Takes over `old`'s parts, still the very files `old` created and
    // wrote in full, when they have this name and `bytes` in all; false
    // (nothing taken) otherwise.
    bool adopt(OocFile& old, std::int64_t bytes);
    void openRead(const char* tag, int msglvl); // by name; -10
    void close();
    void remove();
    void writeAt(const void* data, std::int64_t bytes, std::int64_t offset, int msglvl);
    void readAt(void* data, std::int64_t bytes, std::int64_t offset, int msglvl) const;
    const std::string& path() const { return m_path; }
    void setPath(std::string path) {
        close();
        m_path = std::move(path);
    }
    bool exists() const;

private:
    void createPart(int k, const char* tag, int msglvl);

    std::string m_path;
    std::int64_t m_partBytes = kLargestPart;
    int m_parts = 0; // parts made by the writes
    const char* m_createTag = "";
    std::vector<int> m_fds; // by part, -1 when closed
    struct Identity {
        std::uint64_t device = 0, inode = 0;
    };
    std::vector<Identity> m_ids; // by part, as created
    std::mutex m_partMutex;      // making a part
};

// The files of one factor slot and where each supernode's panels lie.
class OutOfCoreFactor {
public:
    // xsup, xlnz: the structure (one-based values, zero-based arrays).
    OutOfCoreFactor(const OutOfCoreState& state, int slot, bool lu, const int* xsup,
                    const int* xlnz, const int* xlindx, int nsuper, std::int64_t scalarBytes,
                    OocCounters* io);
    ~OutOfCoreFactor();
    OutOfCoreFactor(const OutOfCoreFactor&) = delete;
    OutOfCoreFactor& operator=(const OutOfCoreFactor&) = delete;

    int nsuper() const { return m_nsuper; }
    bool lu() const { return m_lu; }
    std::int64_t lBytes(int sn) const { return m_lBytes[static_cast<std::size_t>(sn)]; }
    std::int64_t uBytes(int sn) const { return m_uBytes[static_cast<std::size_t>(sn)]; }
    std::int64_t panelBytes(int sn) const { return lBytes(sn) + uBytes(sn); }
    // sn's row indices: one int per row of its panel.
    std::int64_t indexBytes(int sn) const {
        return static_cast<std::int64_t>(m_height[static_cast<std::size_t>(sn)]) * 4;
    }
    // Bytes of the rows `from` .. end of sn's L panel, and as many of U.
    std::int64_t tailBytes(int sn, int from) const {
        const std::size_t k = static_cast<std::size_t>(sn);
        return static_cast<std::int64_t>(m_height[k] - from) * m_width[k] * m_scalar *
               (m_lu ? 2 : 1);
    }
    int height(int sn) const { return m_height[static_cast<std::size_t>(sn)]; }
    std::int64_t scalarBytes() const { return m_scalar; }
    int width(int sn) const { return m_width[static_cast<std::size_t>(sn)]; }
    std::int64_t largestPanel() const { return m_largest; }
    std::int64_t totalBytes() const { return m_total; }
    std::vector<std::string> paths() const;

    // Factorization: create, append each finished panel (L then U, in one
    // block of panelBytes; its row indices from `lindx`, which must stay
    // until finishWriting), read one back, finish. readBack brings the rows
    // from `from` down (of U: from - width), each side by columns with the
    // leading dimension height - from, the U side after the L side.
    // streams: how many threads finish panels at once. append and readBack
    // are called under the window's lock, which they release while the
    // files work (and hold again when they return, or throw). `previous`:
    // the factor of the slot this one replaces, whose files of the same
    // name and size are written over in place instead of made anew.
    void createFiles(const int* lindx, int streams, OutOfCoreFactor* previous = nullptr);
    void append(int sn, const std::byte* panel, std::unique_lock<std::mutex>& lock);
    void readBack(int sn, int from, std::byte* panel, std::unique_lock<std::mutex>& lock);
    void finishWriting();
    // The whole index array as the analysis laid it out (xlindx), from the
    // file of a complete factor.
    void readIndex(int* lindx) const;

    // Solve: open by name; chunk reads of consecutive panels.
    void openForReading() const;
    void closeFiles() const;
    std::int64_t lOffset(int sn) const { return m_lOffset[static_cast<std::size_t>(sn)]; }
    std::int64_t uOffset(int sn) const { return m_uOffset[static_cast<std::size_t>(sn)]; }
    std::int64_t indexOffset(int sn) const { return m_iOffset[static_cast<std::size_t>(sn)]; }
    void readL(void* to, std::int64_t bytes, std::int64_t offset) const;
    void readU(void* to, std::int64_t bytes, std::int64_t offset) const;
    void readRows(void* to, std::int64_t bytes, std::int64_t offset) const;
    OocCounters& counters() const { return *m_io; }
    bool complete() const { return m_complete; }

private:
    // Staging of one file: a few streams, each a run of the file being
    // filled from its start, so that threads that finish panels of
    // different parts of the tree each make large writes.
    struct Stream {
        PanelBlock staging;
        std::int64_t base = 0; // where the staged bytes go in the file
        std::int64_t staged = 0;
        std::int64_t lastUse = 0;
        bool flushing = false; // being written with the lock let go
    };
    struct Writer {
        std::vector<Stream> streams;
        std::int64_t capacity = 0; // of each stream
        std::int64_t uses = 0;
    };
    bool put(OocFile& file, Writer& w, const std::byte* data, std::int64_t bytes,
             std::int64_t offset, Stream*& full);
    // The staged copy of bytes at `offset`, null when they are in the file.
    static const std::byte* staged(const Writer& w, std::int64_t offset, std::int64_t bytes);
    // Rows first .. first + m - 1 of cols columns of height ld stored from
    // offset, wanted by columns (ld m) at `to`.
    struct ColumnRead {
        std::int64_t offset, ld, first, m, cols;
        std::byte* to;
    };
    bool copyStaged(const Writer& w, const ColumnRead& r) const;
    std::int64_t readColumns(const OocFile& file, const ColumnRead& r);
    void flush(OocFile& file, Stream& s);
    void flushAll(OocFile& file, Writer& w);
    void startWriter(Writer& w, std::int64_t bytes, int streams);

    int m_nsuper;
    bool m_lu;
    bool m_keep;
    int m_msglvl;
    std::int64_t m_staging;
    std::int64_t m_scalar;
    std::string m_stem; // as configured, without the process and handle
    bool m_complete = false;
    std::vector<int> m_height, m_width; // by supernode, one-based
    PanelBlock m_scratch;               // the span of columns read back
    std::mutex m_scratchMutex;
    std::vector<std::int64_t> m_lBytes, m_uBytes; // by supernode, one-based
    std::vector<std::int64_t> m_lOffset, m_uOffset, m_iOffset;
    std::int64_t m_largest = 0;
    std::int64_t m_total = 0;
    const int* m_xlindx;          // the analysis's, one-based values
    const int* m_lindx = nullptr; // while writing
    mutable OocFile m_lnz, m_unz, m_ind;
    Writer m_lw, m_uw, m_iw;
    OocCounters* m_io;
};

// The factorization's panels in memory: the targets being built, and the
// finished ones that later targets still read, up to a budget. A panel read
// back holds only the rows from the first one its reader needs down: a
// source's later readers are its ancestors, whose rows lie further down. When room is
// needed, the panel whose next reader comes last in the schedule goes first
// (it would stay unread the longest), and a panel that no target needs any
// more goes at once; a dropped panel's block serves a later panel of about
// its size while the budget has room. A panel is held from target() to
// finish(), or from load() to used(), and is never dropped while held.
// Several threads may call at once.
class PanelWindow {
public:
    // The places in the schedule of the targets that read supernode d
    // (one-based): readers[xreaders[d]] .. readers[xreaders[d+1]-1], ascending;
    // rows[k]: the first row of d that reader k needs.
    PanelWindow(OutOfCoreFactor& files, std::int64_t budget, std::vector<int> xreaders,
                std::vector<int> readers, std::vector<int> rows);

    // What a source holds: its L rows from `from` down by columns, leading
    // dimension height - from, then as many rows of U.
    struct Rows {
        const std::byte* data;
        int from;
    };
    // Each call takes the window's lock once; a target's updates make one
    // call each, so the source served last (`done`, 0 for none) is let go
    // in the call that takes the next, and the last one in finish().
    std::byte* target(int sn);                // a block for sn's panels
    Rows load(int d, int from, int done = 0); // d's rows from `from` on, read back if dropped
    void used(int d);                         // d has served one more target
    void finish(int sn, int done = 0);        // writes sn's panels
    // The panels of a held supernode.
    std::byte* at(int sn) const { return m_at[static_cast<std::size_t>(sn)]; }
    std::int64_t peakBytes() const { return m_peak; }

private:
    struct Slot {
        PanelBlock data;
        std::set<std::pair<int, int>>::iterator place;
        bool listed = false;
        int pins = 0;
        std::int64_t capacity = 0; // bytes of data, at least the panel's
        int from = 0;              // first row held
        bool loading = false;      // being read back, outside the lock
    };
    // Place of the next reader of d, past every place when none is left.
    int nextReader(int d) const {
        const std::size_t k = static_cast<std::size_t>(d);
        return m_read[k] < m_xreaders[k + 1] ? m_readers[static_cast<std::size_t>(m_read[k])]
                                             : INT_MAX;
    }
    void drop(int sn);
    void release(int sn);
    void served(int d);
    std::unique_lock<std::mutex> hold();
    void failed(std::unique_lock<std::mutex>& lock);
    std::byte* allocate(int sn, std::int64_t bytes);

    OutOfCoreFactor& m_files;
    std::int64_t m_budget;
    void trim(int sn, int row);

    std::vector<int> m_xreaders, m_readers, m_rows;
    std::vector<int> m_read; // per supernode: next entry of readers
    std::vector<Slot> m_slots;
    std::vector<std::byte*> m_at;
    std::set<std::pair<int, int>> m_idle; // (next reader, supernode) of panels nobody holds
    std::multimap<std::int64_t, PanelBlock> m_pool; // blocks of dropped panels, by size
    std::int64_t m_resident = 0;
    std::int64_t m_pooled = 0;
    std::int64_t m_peak = 0;
    std::mutex m_mutex;
    std::condition_variable m_unpinned;
    bool m_failed = false;
};

// The panels of a factor for the sweeps of the solve, read ahead by a
// thread in chunks of consecutive supernodes (one read per file and chunk:
// the files hold the panels in that order). The chunk buffers outlive a
// sweep: a sweep runs in the order of the files or its reverse, and the
// next one (backward after
// forward, forward after the backward of a refinement step) begins where
// the last one ended, so the chunks still held are handed out first
// instead of being read again.
class PanelReader {
public:
    // chunkBytes: what a chunk holds at most (one panel when that is
    // larger); budget: what all buffers hold together, at least two chunks.
    PanelReader(const OutOfCoreFactor& files, std::int64_t chunkBytes, std::int64_t budget);
    ~PanelReader();
    PanelReader(const PanelReader&) = delete;
    PanelReader& operator=(const PanelReader&) = delete;

    struct Panels {
        int sn;
        const std::byte* l;
        const std::byte* u;
        const int* rows; // sn's row indices
    };
    // A sweep over every supernode, ascending or descending; next() hands
    // them out in that order and throws OocFailure(-11) on a failed read.
    // A new start ends the sweep under way.
    void start(bool ascending);
    Panels next();
    void stop();
    std::size_t buffers() const { return m_chunks.size(); }

private:
    struct Chunk {
        int id = -1;          // which chunk of m_bounds it holds, -1 none
        bool ready = false;   // its panels are read
        bool pending = false; // the sweep under way still needs it
        PanelBlock data;
        std::vector<std::byte*> l, u, rows; // by supernode from the chunk's first
    };
    int chunks() const { return static_cast<int>(m_bounds.size()) - 1; }
    int chunkAt(int k) const { return m_ascending ? k : chunks() - 1 - k; }
    void fill(Chunk& c);
    void run();

    const OutOfCoreFactor& m_files;
    std::vector<int> m_bounds; // chunk k: supernodes m_bounds[k] .. m_bounds[k+1]-1
    std::int64_t m_capacity = 0;
    std::vector<Chunk> m_chunks;
    bool m_ascending = true;
    int m_chunk = 0;            // place in the sweep of the chunk handed out
    Chunk* m_current = nullptr; // the caller may read it
    int m_sn = 0;               // next supernode handed out
    int m_left = 0;             // supernodes of m_current not handed out yet
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stop = false;
    int m_error = 0;
    std::thread m_thread;
};

} // namespace skyrinse::spds
