// Starting a child program that sits beside the test program (the
// tests/<subsystem>/*_child.cpp programs) and waiting for its exit code.
#ifndef ZK_TESTS_SUPPORT_PROCESS_H
#define ZK_TESTS_SUPPORT_PROCESS_H

#include <string>
#include <vector>

namespace zktest {

// Remembers the running test program's path (argv[0], made absolute); the
// custom main does it before any test runs.
void SetTestProgramPath(const char* argv0);
// Full path of a program in the test program's folder (".exe" added where the
// test program has it).
std::string ChildProgramPath(const std::string& name);
// Runs the program with the arguments and returns its exit code, or -1 when it
// could not be run or did not exit normally. The child's command line is its
// path and then the arguments joined by single spaces, each argument that is
// empty or holds a space wrapped in double quotes, on every system. With an
// errorFile the child's standard error goes to that file instead.
int RunChildProgram(const std::string& name, const std::vector<std::string>& args,
                    const std::string& errorFile = "");

} // namespace zktest

#endif // ZK_TESTS_SUPPORT_PROCESS_H
