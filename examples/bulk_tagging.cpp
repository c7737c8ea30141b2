// The main job: tag a sample tree on two volumes through the bulk API.
//
// Builds the library's real setting privately (a mount namespace with two
// tmpfs volumes /mnt and /srv, the tag file system as a FUSE mount, the
// volumes' tag databases and the daemon's FIFO; see tests/support/sandbox.h),
// creates a few hundred files, tags each with four tags in one bulk context
// (one transaction per file), reads some tags back, and prints a summary.
// Needs root, for the mount namespace.

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "sandbox.h"
#include "tevul.h"

using tevul_test::Sandbox;

namespace {

constexpr int kFilesPerVolume[] = {300, 200};
constexpr const char* kVolumes[] = {"mnt", "srv"};
constexpr const char* kKinds[] = {"photo", "music", "video", "document"};

}  // namespace

int main() {
  Sandbox sandbox;
  if (std::string why = sandbox.start({"mnt", "srv"}); !why.empty()) {
    std::fprintf(stderr, "bulk_tagging: cannot build the sandbox: %s\n",
                 why.c_str());
    return 1;
  }

  std::vector<std::string> files;
  for (int v = 0; v < 2; ++v) {
    for (int i = 0; i < kFilesPerVolume[v]; ++i) {
      const std::string dir = Sandbox::volume_root(kVolumes[v]) + "/album" +
                              std::to_string(i / 25);
      tevul_test::make_dirs(dir);
      files.push_back(dir + "/item" + std::to_string(i) + ".dat");
      tevul_test::write_file(files.back(), "sample");
    }
  }

  const auto start = std::chrono::steady_clock::now();
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  if (bulk == nullptr) {
    std::fprintf(stderr, "bulk_tagging: the tag file system is not mounted\n");
    return 1;
  }
  int tags = 0, failures = 0, commits = 0;
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (tevu_bulk_setpath(bulk, files[i].c_str()) != 0) {
      ++failures;
      continue;
    }
    const std::string id = "id-" + std::to_string(i);
    const std::string album = "Album " + std::to_string(i / 25);
    const char* values[][2] = {{"id", id.c_str()},
                               {"kind", kKinds[i % 4]},
                               {"album", album.c_str()},
                               {"rating", i % 5 == 0 ? "5" : "3"}};
    for (const auto& tag : values) {
      if (tevu_bulk_settag(bulk, tag[0], tag[1]) == 0) {
        ++tags;
      } else {
        ++failures;
      }
    }
    ++commits;  // committed by the next setpath, or by fini for the last one
  }

  int checked = 0, mismatches = 0;
  std::string example;  // one value read back, shown with the counts
  char value[64];
  for (std::size_t i = 0; i < files.size(); i += 50) {
    if (tevu_bulk_setpath(bulk, files[i].c_str()) != 0) continue;
    const std::string id = "id-" + std::to_string(i);
    ++checked;
    if (tevu_bulk_gettag(bulk, "id", value, sizeof value) != 0 || id != value) {
      ++mismatches;
    }
    if (i == 0 && tevu_bulk_gettag(bulk, "album", value, sizeof value) == 0) {
      example = files[i] + " has album=" + value;
    }
  }
  tevu_bulk_fini(bulk);
  const double seconds = std::chrono::duration<double>(
                             std::chrono::steady_clock::now() - start)
                             .count();
  const int wakeups = sandbox.drain_fifo();

  // One line per figure, the figures in one column.
  const auto line = [](const std::string& label, const std::string& text) {
    std::printf("%-17s%s\n", (label + ":").c_str(), text.c_str());
  };
  const auto number = [](long long n) { return std::to_string(n); };
  std::printf("Bulk tagging of a sample tree in a private sandbox (two tmpfs volumes,\n"
              "their tag databases, the tag file system as a FUSE mount, its FIFO):\n");
  line("files", number(static_cast<long long>(files.size())) + " on 2 volumes");
  line("tags set", number(tags) + " (failures: " + number(failures) + ")");
  line("commits", number(commits) + " (one per file changed)");
  line("daemon wake-ups", number(wakeups) + " (bytes read from the FIFO)");
  line("read back", number(checked) + " files, " + number(mismatches) + " mismatches");
  if (!example.empty()) line("for example", example);
  for (int v = 0; v < 2; ++v) {
    long long tagged = 0;
    tevu_tagged_files(Sandbox::volume_root(kVolumes[v]).c_str(),
                      [](void* count, const char*, size_t, const char* const*,
                         const char* const*) { return ++*static_cast<long long*>(count), 0; },
                      &tagged);
    line(std::string("tagged in /") + kVolumes[v], number(tagged) + " files");
  }
  char timing[64];
  std::snprintf(timing, sizeof timing, "%.3f s (%.0f files/s)", seconds,
                static_cast<double>(files.size()) / seconds);
  line("time", timing);
  return failures == 0 && mismatches == 0 && wakeups == commits ? 0 : 1;
}
