// The CPU quota of the process's cgroups: a container limited to 1.5 CPUs gets
// 1.5 CPUs of time per period however many cores its mask shows, so running
// more threads than the quota rounded up only adds waiting.
//
// A quota set on any ancestor binds its descendants too, so the path of each
// hierarchy the process belongs to is walked up to its root and the tightest
// limit wins. Without a cgroup namespace the path names the host's view while
// the container sees its own cgroup at the mount's root; walking up reaches
// that root as well, and paths that do not exist are passed over.

#include "runtime/internal/ThreadControl.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace nrt::detail {
namespace {

bool readNumber(std::string_view text, long long& value) noexcept {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

std::string readFirstLine(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// "/a/b" -> "/a/b", "/a", "".
std::vector<std::string> selfAndAncestors(std::string path) {
    std::vector<std::string> paths;
    while (!path.empty() && path.back() == '/')
        path.pop_back();
    for (;;) {
        paths.push_back(path);
        if (path.empty()) return paths;
        path.erase(path.rfind('/'));
    }
}

int tighter(int a, int b) noexcept {
    if (a < 0) return b;
    if (b < 0) return a;
    return std::min(a, b);
}

int quotaOfV2(const std::string& mount, const std::string& path) {
    int quota = -1;
    for (const std::string& dir : selfAndAncestors(path))
        quota = tighter(quota, quotaFromCpuMax(readFirstLine(mount + dir + "/cpu.max")));
    return quota;
}

int quotaOfV1(const std::string& mount, const std::string& path) {
    int quota = -1;
    for (const std::string& dir : selfAndAncestors(path)) {
        long long quotaUs = 0;
        long long periodUs = 0;
        if (readNumber(readFirstLine(mount + dir + "/cpu.cfs_quota_us"), quotaUs) &&
            readNumber(readFirstLine(mount + dir + "/cpu.cfs_period_us"), periodUs))
            quota = tighter(quota, quotaFromCfs(quotaUs, periodUs));
    }
    return quota;
}

bool listsController(const std::string& controllers, std::string_view name) {
    std::stringstream list(controllers);
    std::string item;
    while (std::getline(list, item, ','))
        if (item == name) return true;
    return false;
}

} // namespace

int quotaFromCfs(long long quotaUs, long long periodUs) noexcept {
    if (quotaUs <= 0 || periodUs <= 0) return -1;
    const long long millis = (quotaUs * 1000 + periodUs - 1) / periodUs;
    return static_cast<int>(std::clamp(millis, 1LL, 1LL << 30));
}

int quotaFromCpuMax(std::string_view text) noexcept {
    const std::size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return -1;
    long long quotaUs = 0;
    long long periodUs = 0;
    if (!readNumber(text.substr(0, blank), quotaUs) ||
        !readNumber(text.substr(blank + 1), periodUs))
        return -1; // "max": no limit
    return quotaFromCfs(quotaUs, periodUs);
}

int cgroupCpuQuota(const std::string& procCgroup, const std::string& cgroupRoot) {
    std::ifstream file(procCgroup);
    int quota = -1;
    std::string line;
    // "hierarchy:controllers:path"; the unified hierarchy has no controllers.
    while (std::getline(file, line)) {
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const std::string path = line.substr(second + 1);
        if (controllers.empty()) {
            // Mounted at the root alone, or under unified/ beside v1 hierarchies.
            quota = tighter(quota, quotaOfV2(cgroupRoot, path));
            quota = tighter(quota, quotaOfV2(cgroupRoot + "/unified", path));
        } else if (listsController(controllers, "cpu")) {
            quota = tighter(quota, quotaOfV1(cgroupRoot + "/cpu", path));
            if (controllers != "cpu")
                quota = tighter(quota, quotaOfV1(cgroupRoot + "/" + controllers, path));
        }
    }
    return quota;
}

} // namespace nrt::detail
