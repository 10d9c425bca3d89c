// How long summary.txt takes to write when one description is very long:
// the wrapping into columns must cost time in proportion to the text.
// Writes the summary of one config whose one included file has a
// description of 1, 4 and 16 MiB of words, and prints seconds and MiB/s.
//
//   bench_summary_wrap_bench [folder]   (default: a folder below the current one)
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <list>
#include <string>

#include "tools/KEEL/KEELEngine/implementations/collector.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

std::string Words(size_t bytes) {
  std::string text;
  text.reserve(bytes + 16);
  for (size_t word = 0; text.size() < bytes; ++word)
    text += std::string(1 + word % 11, static_cast<char>('a' + word % 26)) + " ";
  text.resize(bytes);
  return text;
}

double SecondsToWrite(const std::string& folder, size_t bytes) {
  std::list<KEELComponent*> unprocessed;
  XMLObject noRequest;
  collector job(&noRequest, &unprocessed, "bench.zip", false, true);
  job.initializeSummary();
  auto* entry = new KEELComponent("id", "file.log");
  entry->AddAttribute("description", Words(bytes));
  entry->AddAttribute("file_size", "10 bytes");
  job.summaryDocument()->GetRoot()->FindChild("Manifest_Included")->AddChild(entry);
  XMLObject config("config", "");
  config.AddChild(config.GetRoot(), "configure", "");
  const auto start = std::chrono::steady_clock::now();
  const ResultCode result = job.writeSummary(folder, &config);
  const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start;
  unlink((folder + "/summary.txt").c_str());
  if (result != 0)
    fprintf(stderr, "writeSummary failed: 0x%08X\n", result);
  return spent.count();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder = argc > 1 ? argv[1] : "summary-wrap-bench";
  mkdir(folder.c_str(), 0700);
  printf("%-12s %10s %10s\n", "description", "seconds", "MiB/s");
  for (size_t mebibytes : {1, 4, 16}) {
    const double seconds = SecondsToWrite(folder, mebibytes << 20);
    printf("%9zu MiB %10.3f %10.1f\n", mebibytes, seconds, mebibytes / seconds);
  }
  rmdir(folder.c_str());
  return 0;
}
