// Running Debian's Wine for a tool: its environment, its descriptors, and
// waiting for it and, when asked, for everything it started.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace vt::product {

// How a tool ends when it started nothing (its message says why); any other
// status is Wine's own: the program's exit status, or 128 + N when Wine died
// of signal N.
inline constexpr int kStatusEntryNotFound = 1;
inline constexpr int kStatusUsage = 2;
inline constexpr int kStatusWineNotRunnable = 126; // there, but exec failed
inline constexpr int kStatusNoWine = 127;

// A NULL-terminated array of C strings pointing into `strings` (after
// `first`, when given), for exec and spawn.
std::vector<char*> pointersInto(const std::vector<std::string>& strings, const char* first = nullptr);

// Marks every descriptor but 0, 1 and 2 close-on-exec: whatever the tool was
// given or opens stays out of Wine, whose programs would hold it for as long
// as they run.
void keepOnlyStandardDescriptorsAcrossExec();

// The tool's environment as it was given (the launcher's variables, the tag
// among them, reach the program) with WINEPREFIX set to the bottle and
// WINEDEBUG=-all unless the caller chose otherwise. The launcher's loader
// socket is the tools' to use, not the program's: it stays out.
std::vector<std::string> wineEnvironment(const std::filesystem::path& prefix);

// Replaces the tool with Wine: same process id, same standard descriptors.
// Returns only when that failed, with the status to exit with (the message is
// written).
int execWine(const std::string& role, const std::filesystem::path& loader, const std::vector<std::string>& arguments,
             const std::vector<std::string>& environment);

// Runs Wine once for each of `runs`, one after another, each as the tool's
// child. SIGTERM, SIGINT and SIGHUP reaching the tool meanwhile are passed on
// to the Wine that runs and the tool goes on waiting: it ends nothing itself.
// With `waitForChildren` the tool then waits until every process that these
// runs started has ended too, but for the Wine server and Wine's services of
// the bottle, which stay for the bottle's other programs. Answers the status to exit
// with: the first non-zero one of the runs, else 0.
int runWine(const std::string& role, const std::filesystem::path& loader,
            const std::vector<std::vector<std::string>>& runs, const std::vector<std::string>& environment,
            bool waitForChildren);

} // namespace vt::product
