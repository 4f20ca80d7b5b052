#include "testsupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "vornhost/vornhost.h"

namespace fs = std::filesystem;

namespace rtvox::test {

TempRoot::TempRoot()
{
    std::string pattern = (fs::temp_directory_path() / "rtvox-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    dir_ = pattern;
    for (const char *sub : {"/var/log", "/flash/data0/oem_ps", "/tmp"}) {
        fs::create_directories(dir_ + sub);
    }
    setenv("RTVOX_ROOT", dir_.c_str(), 1);
}

TempRoot::~TempRoot()
{
    unsetenv("RTVOX_ROOT");
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
}

void TempRoot::touch(const std::string &absolute, const std::string &content) const
{
    fs::create_directories(fs::path(path(absolute)).parent_path());
    std::ofstream out(path(absolute), std::ios::binary | std::ios::trunc);
    out << content;
}

bool TempRoot::exists(const std::string &absolute) const
{
    struct stat st {};
    return stat(path(absolute).c_str(), &st) == 0;
}

std::string TempRoot::read(const std::string &absolute) const
{
    return read_file(path(absolute));
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void trace_start()
{
    vornhost_trace_clear();
    vornhost_trace_capture(1);
}

std::vector<std::string> trace_lines()
{
    std::vector<std::string> lines;
    const uint32_t n = vornhost_trace_count();
    for (uint32_t i = 0; i < n; ++i) {
        VornHostTraceLine line{};
        if (vornhost_trace_get(i, &line) != 0) {
            break;
        }
        std::string text = line.text;
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
        }
        lines.push_back("L" + std::to_string(line.level) + " " + text);
    }
    return lines;
}

bool trace_has(int level, const std::string &needle)
{
    const std::string prefix = "L" + std::to_string(level) + " ";
    return std::ranges::any_of(trace_lines(), [&](const std::string &line) {
        return line.starts_with(prefix) && line.find(needle) != std::string::npos;
    });
}

int trace_count(const std::string &needle)
{
    return static_cast<int>(std::ranges::count_if(
        trace_lines(), [&](const std::string &line) { return line.find(needle) != std::string::npos; }));
}

// ---- concurrency tests ------------------------------------------------------------

bool valgrind_run()
{
    const char *flag = std::getenv("RTVOX_UNDER_VALGRIND");
    return flag != nullptr && flag[0] == '1';
}

TimeBound::TimeBound(unsigned seconds)
{
    std::signal(SIGALRM, [](int) {
        static const char message[] = "time bound: the test overran its time bound\n";
        (void)!write(STDERR_FILENO, message, sizeof message - 1);
        _exit(3);
    });
    alarm(seconds);
}

TimeBound::~TimeBound()
{
    alarm(0);
}

}  // namespace rtvox::test
