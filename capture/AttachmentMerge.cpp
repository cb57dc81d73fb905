#include "capture/AttachmentMerge.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>

#include "capture/AttachmentStore.h"
#include "capture/JsonText.h"
#include "capture/OutputFiles.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

uint64_t NumberField(std::string_view line, std::string_view key) {
  return std::strtoull(std::string(JsonFieldText(line, key)).c_str(), nullptr, 10);
}

struct Row {
  uint64_t number = 0;
  uint64_t part = 0;
  std::string text;
};

// A stored file linked (or moved) into the merged folder; one already there
// (the same hash from another folder) is the same file.
bool CarryFile(const fs::path& source, const fs::path& target) {
  if (::link(source.c_str(), target.c_str()) == 0 || errno == EEXIST) return true;
  return errno == EXDEV && ::rename(source.c_str(), target.c_str()) == 0;
}

}  // namespace

std::string MergeAttachments(const std::vector<std::string>& folders, const std::vector<MergedRecord>& records,
                             const std::string& out_dir, AttachmentMergeReport* report) {
  std::map<std::pair<size_t, uint64_t>, uint64_t> numbers;
  for (const MergedRecord& record : records) numbers[{record.folder, record.old_number}] = record.new_number;
  const fs::path out(out_dir);
  std::vector<Row> rows;
  bool any = false;
  for (size_t f = 0; f < folders.size(); ++f) {
    std::ifstream in(fs::path(folders[f]) / "attachments.jsonl", std::ios::binary);
    if (!in) continue;
    if (!any && ::mkdir((out / AttachmentStore::kFolder).c_str(), 0750) != 0 && errno != EEXIST)
      return "cannot create " + (out / AttachmentStore::kFolder).string();
    any = true;
    for (std::string line; std::getline(in, line);) {
      const auto found = numbers.find({f, NumberField(line, "email_number")});
      if (found == numbers.end()) {
        ++report->rows_missing;
        continue;
      }
      const std::string_view digits = JsonFieldText(line, "email_number");
      line.replace(static_cast<size_t>(digits.data() - line.data()), digits.size(), std::to_string(found->second));
      // Only the hash names the file: nothing else of the line makes a path.
      const std::string sha256(JsonFieldText(line, "sha256"));
      const bool stored = !JsonFieldText(line, "stored_path").empty() && !sha256.empty() &&
                          sha256.find_first_not_of("0123456789abcdef") == std::string::npos;
      if (stored && !CarryFile(fs::path(folders[f]) / AttachmentStore::kFolder / sha256,
                               out / AttachmentStore::kFolder / sha256))
        ++report->files_missing;
      rows.push_back({found->second, NumberField(line, "part"), std::move(line)});
    }
  }
  if (!any) return {};
  std::stable_sort(rows.begin(), rows.end(),
                   [](const Row& a, const Row& b) { return std::tie(a.number, a.part) < std::tie(b.number, b.part); });
  OutputFile file;
  bool ok = file.Open((out / "attachments.jsonl").string());
  for (size_t i = 0; ok && i < rows.size(); ++i) ok = file.WriteLine(rows[i].text);
  report->rows = rows.size();
  if (ok && file.Close()) return {};
  return file.error().empty() ? "cannot write " + (out / "attachments.jsonl").string() : file.error();
}

}  // namespace pelka
