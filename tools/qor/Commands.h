#pragma once
// The tool's subcommands, one function each. Each returns the process exit status.

#include <string>
#include <vector>

namespace qor::tool {

// Prints "qor: <message>" on standard error and returns 2.
int usageError(const std::string& message);

// Parses a whole decimal number; false for anything else.
bool parseCount(const std::string& text, unsigned long& value);

// Redraws a one-line progress bar on standard error ("[####....]  42% 21/50 <unit>"); `final`
// ends the line.
void drawProgressBar(unsigned long done, unsigned long total, const char* unit, bool final);

int runJobsDemo(const std::vector<std::string>& args);
int runTilesDemo(const std::vector<std::string>& args);
int runPipelineDemo(const std::vector<std::string>& args);
int runInfo(const std::vector<std::string>& args);
int runThumb(const std::vector<std::string>& args);
int runChecksum(const std::vector<std::string>& args);
int runExport(const std::vector<std::string>& args);
int runGpuInfo(const std::vector<std::string>& args);

}  // namespace qor::tool
