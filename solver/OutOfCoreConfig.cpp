// Configuration of the out-of-core layer; the contract is in OutOfCoreConfig.h.
#include "OutOfCoreConfig.h"

#include "Messages.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace skyrinse::spds {

namespace {

// Environment values longer than this are cut, as the fixed buffers of the
// file layer always did; a longer stem could not be opened anyway.
constexpr std::size_t kValueLimit = 1000;

std::string trimmed(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos) return {};
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

const char* environmentValue(const char* name) {
    const char* v = std::getenv(name);
    return v && *v ? v : nullptr;
}

// "%d": leading blanks, a sign and digits; anything else leaves `out` alone.
bool readNumber(const std::string& text, int& out) {
    const char* p = text.c_str();
    char* end = nullptr;
    const long v = std::strtol(p, &end, 10);
    if (end == p || v < -2147483647L || v > 2147483647L) return false;
    out = static_cast<int>(v);
    return true;
}

std::vector<std::string> words(const std::string& s, const char* separators) {
    std::vector<std::string> out;
    std::size_t i = 0;
    while (i < s.size()) {
        i = s.find_first_not_of(separators, i);
        if (i == std::string::npos) break;
        const std::size_t j = s.find_first_of(separators, i);
        out.push_back(s.substr(i, j == std::string::npos ? std::string::npos : j - i));
        i = j;
    }
    return out;
}

} // namespace

void applyOocConfigText(const std::string& text, OocConfig& config, const bool fromEnvironment[3]) {
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        line = line.substr(0, line.find('#'));
        const auto eq = line.find('=');
        if (eq == std::string::npos) continue;
        const auto keyEnd = line.find_first_of("=\t");
        std::string key = trimmed(line.substr(0, keyEnd));
        std::transform(key.begin(), key.end(), key.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        // The value: the words after "=", separated by blanks or further "=".
        const std::vector<std::string> value = words(line.substr(eq + 1), "= \t\r");
        if (value.empty()) continue;
        if (key == "spds_ooc_path" && !fromEnvironment[0]) {
            std::string joined = value[0];
            for (std::size_t k = 1; k < value.size(); ++k)
                joined += " " + value[k];
            config.stem = joined;
        } else if (key == "spds_ooc_max_core_size" && !fromEnvironment[1]) {
            readNumber(value[0], config.maxCoreMb);
        } else if (key == "spds_ooc_keep_file" && !fromEnvironment[2]) {
            readNumber(value[0], config.keepFile);
        }
    }
}

OocConfig readOocConfig(int msglvl) {
    OocConfig config;
    std::string folder = ".";
    std::string name = "spds_ooc.cfg";
    bool fromEnvironment[3] = {false, false, false};
    auto cut = [](const char* v) { return std::string(v).substr(0, kValueLimit); };
    if (const char* v = environmentValue("SPDS_OOC_CFG_PATH")) {
        folder = cut(v);
        if (msglvl > 0) spds_message(0, 956, 1, folder.c_str());
    }
    if (const char* v = environmentValue("SPDS_OOC_CFG_FILE_NAME")) {
        name = cut(v);
        if (msglvl > 0) spds_message(0, 957, 1, name.c_str());
    }
    if (const char* v = environmentValue("SPDS_OOC_PATH")) {
        config.stem = cut(v);
        fromEnvironment[0] = true;
        if (msglvl > 0) spds_message(0, 958, 1, config.stem.c_str());
    }
    if (const char* v = environmentValue("SPDS_OOC_MAX_CORE_SIZE")) {
        fromEnvironment[1] = readNumber(v, config.maxCoreMb);
        if (msglvl > 0) spds_message(0, 959, 1, config.maxCoreMb);
    }
    if (const char* v = environmentValue("SPDS_OOC_KEEP_FILE")) {
        fromEnvironment[2] = readNumber(v, config.keepFile);
        if (msglvl > 0) spds_message(0, 960, 1, config.keepFile);
    }
    if (!(fromEnvironment[0] && fromEnvironment[1] && fromEnvironment[2])) {
        const std::string path = folder + "/" + name;
        std::ifstream file(path);
        if (!file) {
            if (msglvl > 0) spds_message(0, 961, 1, path.c_str());
        } else {
            std::ostringstream text;
            text << file.rdbuf();
            applyOocConfigText(text.str(), config, fromEnvironment);
        }
    }
    const auto end = config.stem.find_last_not_of(' ');
    config.stem =
        end == std::string::npos ? std::string("ooc_temp") : config.stem.substr(0, end + 1);
    return config;
}

} // namespace skyrinse::spds
