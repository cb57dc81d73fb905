#include "capture/OutputMerge.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>

#include "capture/AttachmentMerge.h"
#include "capture/DatabaseMerge.h"
#include "capture/JsonText.h"
#include "capture/OutputFiles.h"
#include "capture/StatisticsSum.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

// One line of a folder's file, with what orders it.
struct Line {
  std::string text;
  std::string time;  // sorts in time order as text
  size_t folder = 0;
  size_t index = 0;
  std::string csv, txt;  // a record's export lines
};

bool ReadLines(const fs::path& path, std::vector<std::string>* lines) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  for (std::string line; std::getline(in, line);) lines->push_back(std::move(line));
  return true;
}

// A number's digits padded to sort as text.
std::string SortableNumber(std::string_view digits) { return std::string(20 - std::min<size_t>(digits.size(), 20), '0') + std::string(digits); }

void SortByTime(std::vector<Line>& lines) {
  std::stable_sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) {
    return std::tie(a.time, a.folder, a.index) < std::tie(b.time, b.folder, b.index);
  });
}

class Merger {
 public:
  Merger(const std::vector<std::string>& folders, const std::string& out_dir, MergeReport* report)
      : folders_(folders), out_(out_dir), report_(*report) {}

  std::string Run() {
    for (size_t f = 0; f < folders_.size(); ++f) {
      if (std::string problem = ReadFolder(f); !problem.empty()) return problem;
    }
    SortByTime(records_);
    if (std::string problem = CarryCopies(); !problem.empty()) return problem;
    if (std::string problem = WriteAll(); !problem.empty()) return problem;
    if (std::string problem = CarryAttachments(); !problem.empty()) return problem;
    return MergeDatabase();
  }

 private:
  std::string ReadFolder(size_t f) {
    const fs::path folder = folders_[f];
    std::vector<std::string> records, csv, txt;
    if (!ReadLines(folder / "emails.jsonl", &records)) return folders_[f] + " holds no emails.jsonl: not an output folder";
    ReadLines(folder / "email_log.csv", &csv);
    ReadLines(folder / "email_log.txt", &txt);
    // Each export file is a header and then one line per record, in the records' order.
    const bool paired = csv.size() == records.size() + 1 && txt.size() == records.size() + 1;
    if (!paired && !(csv.empty() && txt.empty())) {
      report_.warnings.push_back(folders_[f] + ": the export lines do not match the records one to one; they are "
                                              "kept after the others, in their folder's order");
    }
    if (!csv.empty() && csv_header_.empty()) csv_header_ = csv[0];
    if (!txt.empty() && txt_header_.empty()) txt_header_ = txt[0];
    for (size_t i = 0; i < records.size(); ++i) {
      Line line{records[i], std::string(JsonFieldText(records[i], "timestamp")), f, i, {}, {}};
      if (paired) line.csv = csv[i + 1], line.txt = txt[i + 1];
      records_.push_back(std::move(line));
    }
    if (!paired) {
      for (size_t i = 1; i < csv.size(); ++i) unpaired_csv_.push_back(csv[i]);
      for (size_t i = 1; i < txt.size(); ++i) unpaired_txt_.push_back(txt[i]);
    }
    ReadTimed(folder / "entries.jsonl", f, "time", false, &entries_);
    ReadTimed(folder / "diagnosis.jsonl", f, "time", true, &diagnosis_);
    ReadTimed(folder / "notices.jsonl", f, "time", false, &notices_);
    std::ifstream statistics(folder / "statistics.json", std::ios::binary);
    if (statistics) statistics_.push_back(std::string(std::istreambuf_iterator<char>(statistics), {}));
    return {};
  }

  static void ReadTimed(const fs::path& path, size_t f, std::string_view key, bool numeric, std::vector<Line>* out) {
    std::vector<std::string> lines;
    ReadLines(path, &lines);
    for (size_t i = 0; i < lines.size(); ++i) {
      const std::string_view time = JsonFieldText(lines[i], key);
      out->push_back({lines[i], numeric ? SortableNumber(time) : std::string(time), f, i, {}, {}});
    }
  }

  // Links (or moves) each record's copy into the merged folder and rewrites
  // its path and number.
  std::string CarryCopies() {
    const fs::path copy_dir = fs::path(AbsoluteDirectory(out_)) / "email_copy";
    uint64_t number = 0;
    for (Line& record : records_) {
      MergedRecord& place = placed_.emplace_back();
      place.folder = record.folder;
      place.old_number = std::strtoull(std::string(JsonFieldText(record.text, "email_number")).c_str(), nullptr, 10);
      place.new_number = ++number;
      Renumber(record.text, number);
      const std::string_view raw = JsonFieldText(record.text, "email_file_path");
      if (raw.empty()) continue;
      const std::string source = UnescapeJson(raw);
      std::string target;
      if (!made_copy_dir_) {
        std::error_code error;
        fs::create_directory(copy_dir, error);
        if (error) return "cannot create " + copy_dir.string() + ": " + error.message();
        made_copy_dir_ = true;
      }
      if (!CarryCopy(source, copy_dir, &target)) ++report_.copies_missing;
      ReplaceText(record.text, raw, target);
      place.copy_path = target;
    }
    return {};
  }

  bool CarryCopy(const std::string& source, const fs::path& copy_dir, std::string* target) {
    const fs::path name = fs::path(source).filename();
    std::string wanted = name.string();
    for (int suffix = 2; !used_names_.insert(wanted).second; ++suffix) {
      wanted = name.stem().string() + "-" + std::to_string(suffix) + name.extension().string();
    }
    const fs::path destination = copy_dir / wanted;
    if (::link(source.c_str(), destination.c_str()) == 0) {
      ++report_.copies_linked;
    } else if (errno == EXDEV && ::rename(source.c_str(), destination.c_str()) == 0) {
      ++report_.copies_moved;
    } else {
      report_.warnings.push_back("copy " + source + " not carried over: " + std::strerror(errno));
      return false;
    }
    *target = destination.string();
    return true;
  }

  static void Renumber(std::string& line, uint64_t number) {
    const std::string_view digits = JsonFieldText(line, "email_number");
    if (!digits.empty()) line.replace(static_cast<size_t>(digits.data() - line.data()), digits.size(), std::to_string(number));
  }

  // Replaces a string field's value; `raw` is its escaped contents in `line`.
  static void ReplaceText(std::string& line, std::string_view raw, const std::string& value) {
    std::string escaped;
    AppendJsonString(escaped, value);
    line.replace(static_cast<size_t>(raw.data() - line.data()) - 1, raw.size() + 2, escaped);
  }

  std::string WriteAll() {
    std::vector<std::string> csv = {csv_header_}, txt = {txt_header_}, records;
    for (const Line& record : records_) {
      records.push_back(record.text);
      if (!record.csv.empty() || !record.txt.empty()) csv.push_back(record.csv), txt.push_back(record.txt);
    }
    csv.insert(csv.end(), unpaired_csv_.begin(), unpaired_csv_.end());
    txt.insert(txt.end(), unpaired_txt_.begin(), unpaired_txt_.end());
    SortByTime(entries_);
    SortByTime(diagnosis_);
    SortByTime(notices_);
    report_.records = records.size();
    report_.entries = entries_.size();
    report_.diagnosis_reports = diagnosis_.size();
    report_.notices = notices_.size();
    size_t skipped = 0;
    const std::string statistics = SumStatistics(statistics_, &skipped);
    if (skipped) report_.warnings.push_back(std::to_string(skipped) + " statistics.json files could not be read");
    std::string problem;
    const auto write = [&](const char* name, const std::vector<std::string>& lines) {
      if (!problem.empty() || (lines.size() == 1 && lines[0].empty())) return;
      OutputFile file;
      const std::string path = (fs::path(out_) / name).string();
      bool ok = file.Open(path);
      for (size_t i = 0; ok && i < lines.size(); ++i) ok = file.WriteLine(lines[i]);
      if (!(ok && file.Close())) problem = file.error().empty() ? "cannot write " + path : file.error();
    };
    write("emails.jsonl", records);
    write("email_log.csv", csv);
    write("email_log.txt", txt);
    write("entries.jsonl", Texts(entries_));
    write("diagnosis.jsonl", Texts(diagnosis_));
    if (!notices_.empty()) write("notices.jsonl", Texts(notices_));
    write("statistics.json", {statistics});
    return problem;
  }

  std::string CarryAttachments() {
    AttachmentMergeReport merged;
    const std::string problem = MergeAttachments(folders_, placed_, out_, &merged);
    if (merged.rows_missing)
      report_.warnings.push_back(std::to_string(merged.rows_missing) +
                                 " lines of attachments.jsonl match no record of their folder and were left out");
    if (merged.files_missing)
      report_.warnings.push_back(std::to_string(merged.files_missing) + " attachment files could not be carried over");
    return problem;
  }

  std::string MergeDatabase() {
    DatabaseMergeReport merged;
    const std::string problem = MergeDatabases(folders_, placed_, (fs::path(out_) / "emails.sqlite").string(), &merged);
    report_.databases = merged.databases;
    report_.warnings.insert(report_.warnings.end(), merged.warnings.begin(), merged.warnings.end());
    return problem;
  }

  static std::vector<std::string> Texts(const std::vector<Line>& lines) {
    std::vector<std::string> texts;
    for (const Line& line : lines) texts.push_back(line.text);
    return texts;
  }

  const std::vector<std::string>& folders_;
  const std::string out_;
  MergeReport& report_;
  std::vector<Line> records_, entries_, diagnosis_, notices_;
  std::vector<MergedRecord> placed_;  // where each record went, in merged order
  std::vector<std::string> unpaired_csv_, unpaired_txt_, statistics_;
  std::string csv_header_, txt_header_;
  std::set<std::string> used_names_;
  bool made_copy_dir_ = false;
};

std::string CheckOutputFolder(const std::vector<std::string>& folders, const std::string& out_dir) {
  std::error_code error;
  if (fs::exists(out_dir, error) && !fs::is_empty(out_dir, error)) {
    return "the merged folder " + out_dir + " exists and is not empty; name a new folder";
  }
  for (const std::string& folder : folders) {
    if (fs::exists(out_dir, error) && fs::equivalent(folder, out_dir, error)) {
      return "the merged folder " + out_dir + " is one of the folders to merge";
    }
  }
  return PrepareOutputDirectory(out_dir);
}

}  // namespace

std::string MergeOutputFolders(const std::vector<std::string>& folders, const std::string& out_dir,
                               MergeReport* report) {
  if (folders.empty()) return "no folders to merge";
  if (std::string problem = CheckOutputFolder(folders, out_dir); !problem.empty()) return problem;
  return Merger(folders, out_dir, report).Run();
}

}  // namespace pelka
