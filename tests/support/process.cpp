// Child programs. On Windows the C runtime's _spawnv passes the arguments as
// they are, joined by spaces, so the quoting is done here; elsewhere
// std::system runs the program through the shell with every argument in
// single quotes, so the program receives the arguments unchanged and the
// platform layer rebuilds the same command line from them.
#include "support/process.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#if defined(_WIN32)
#include <cstdio>
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <sys/stat.h>
#endif

namespace zktest {

namespace {
std::string g_programPath;
} // namespace

void SetTestProgramPath(const char* argv0) {
    // Made absolute now: the library moves the current directory to the
    // executable's folder when it starts.
    std::error_code error;
    std::filesystem::path path = std::filesystem::absolute(argv0 ? argv0 : "", error);
    g_programPath = error ? std::string(argv0 ? argv0 : "") : path.string();
}

std::string ChildProgramPath(const std::string& name) {
    const size_t cut = g_programPath.find_last_of("/\\");
    const std::string path =
        cut == std::string::npos ? "./" + name : g_programPath.substr(0, cut + 1) + name;
    return g_programPath.ends_with(".exe") || g_programPath.ends_with(".EXE") ? path + ".exe"
                                                                              : path;
}

#if defined(_WIN32)

int RunChildProgram(const std::string& name, const std::vector<std::string>& args,
                    const std::string& errorFile) {
    // The child inherits standard error: it is pointed at the file meanwhile.
    int savedError = -1;
    if (!errorFile.empty()) {
        const int file =
            _open(errorFile.c_str(), _O_WRONLY | _O_CREAT | _O_TRUNC, _S_IREAD | _S_IWRITE);
        if (file < 0) return -1;
        std::fflush(stderr);
        savedError = _dup(2);
        _dup2(file, 2);
        _close(file);
    }
    auto quote = [](const std::string& arg) {
        return arg.empty() || arg.find(' ') != std::string::npos ? "\"" + arg + "\"" : arg;
    };
    const std::string path = ChildProgramPath(name);
    std::vector<std::string> quoted{quote(path)};
    for (const std::string& arg : args)
        quoted.push_back(quote(arg));
    std::vector<const char*> argv;
    for (const std::string& arg : quoted)
        argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    intptr_t code = _spawnv(_P_WAIT, path.c_str(), argv.data());
    if (savedError >= 0) {
        _dup2(savedError, 2);
        _close(savedError);
    }
    return code < 0 ? -1 : static_cast<int>(code);
}

#else

int RunChildProgram(const std::string& name, const std::vector<std::string>& args,
                    const std::string& errorFile) {
    auto shellQuote = [](const std::string& text) {
        std::string quoted = "'";
        for (char c : text)
            c == '\'' ? quoted.append("'\\''") : quoted.append(1, c);
        return quoted + "'";
    };
    std::string command = shellQuote(ChildProgramPath(name));
    for (const std::string& arg : args)
        command.append(" ").append(shellQuote(arg));
    if (!errorFile.empty()) command.append(" 2>").append(shellQuote(errorFile));
    int status = std::system(command.c_str());
    // A wait status: the exit code sits in bits 8 to 15 when the low 7 bits are 0.
    if (status == -1 || (status & 0x7F) != 0) return -1;
    return (status >> 8) & 0xFF;
}

#endif

} // namespace zktest
