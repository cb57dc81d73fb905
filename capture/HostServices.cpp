#include "capture/HostServices.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <array>
#include <atomic>
#include <map>
#include <mutex>

#include "capture/BoundFlow.h"
#include "capture/CopyStore.h"
#include "capture/HostDiagnosis.h"
#include "capture/HostFlow.h"
#include "capture/HostLogService.h"
#include "capture/HostObject.h"
#include "capture/HostStatistics.h"
#include "capture/JsonText.h"
#include "capture/LocalTime.h"
#include "capture/MailObserver.h"
#include "capture/OutputFiles.h"
#include "capture/ReplacedFile.h"
#include "capture/OutputLock.h"

namespace pelka {
namespace {

// Looks an interface up on the module's main table.
template <typename Interface>
Interface* Query(CPAEBaseModule* module, const Guid& id) {
  void* out = nullptr;
  if (module->QueryInterface(id, &out) != 0) return nullptr;
  return static_cast<Interface*>(out);
}

// The ports of mail services that are not followed: submission, SMTP over
// TLS, IMAP and POP3 over TLS, and the usual alternative SMTP port.
const char* UnfollowedMailProtocol(uint16_t port) {
  switch (port) {
    case 465: case 587: case 2525: return "SMTP";
    case 993: return "IMAP4";
    case 995: return "POP3";
    default: return nullptr;
  }
}

}  // namespace

class HostServices::Impl final : public FlowSink, public NoticeWriter {
 public:
  explicit Impl(HostOptions options)
      : options_(std::move(options)),
        notify_(options_.resource_dir),
        diagnosis_(&diagnosis_file_),
        host_({nullptr, &diagnosis_, &statistics_, &icons_}) {
    diagnosis_.set_enabled(options_.diagnosis_enabled);
    if (options_.smtp_threshold_ms >= 0) diagnosis_.OverrideParameter("smtp_time", options_.smtp_threshold_ms);
    if (options_.pop3_threshold_ms >= 0) diagnosis_.OverrideParameter("pop3_time", options_.pop3_threshold_ms);
    for (auto [file, name] : Files()) file->ShareFailure(&file_failed_);
  }

  bool Open() {
    if (std::string problem = PrepareOutputDirectory(options_.out_dir); !problem.empty()) return Fail(problem);
    const std::string root = AbsoluteDirectory(options_.out_dir);
    std::string problem;
    // Nothing in the folder is touched before the lock is held.
    if (lock_ = OutputLock::Take(root, &problem); !lock_) return Fail(problem);
    if (options_.rotate) {
      // The folders below come with the packets (StartFolder).
      if (options_.copies) copy_store_ = CopyStore::Unplaced();
    } else {
      // Without --copies, copies made for the attachments alone are read and dropped.
      if ((options_.copies || options_.attachments) && !(copy_store_ = CopyStore::Open(root, &problem)))
        return Fail(problem);
      if (copy_store_ && copy_store_->placed() && !copy_store_->Writable(&problem)) return Fail(problem);
      for (auto [file, name] : Files())
        if (!file->Open(root + name)) return Fail(file->error());
      folder_ = root;
    }
    for (auto [file, name] : Files()) file->WriteEachLine(options_.lines_at_once);
    database_ = std::make_unique<RunDatabase>();
    RunSink* sink = options_.database ? database_.get() : nullptr;
    if (options_.attachments &&
        !(attachments_ = AttachmentTaker::Open(root, options_.ioc_hashes.get(), open_database(), &problem)))
      return Fail(problem);
    if (attachments_) attachments_->file().WriteEachLine(options_.lines_at_once);
    LogOutputs outputs{&records_file_, &entries_file_, &csv_file_, &text_file_, options_.lines_at_once, sink,
                       attachments_.get()};
    outputs.write_behind = options_.write_behind;
    log_ = std::make_unique<HostLogService>(outputs,
        ModuleStorageRoot(root), options_.copies, options_.conditions ? &*options_.conditions : nullptr,
        copy_store_.get());
    host_ = HostObject({log_.get(), &diagnosis_, &statistics_, &icons_});
    if (options_.database && !options_.rotate) OpenDatabase(root + "emails.sqlite");
    return true;
  }

  bool GiveTo(uid_t uid, gid_t gid) {
    std::string problem;
    if (lock_ && !lock_->GiveTo(uid, gid, &problem)) return Fail(problem);
    if (copy_store_ && !copy_store_->GiveTo(uid, gid, &problem)) return Fail(problem);
    for (auto [file, name] : Files())
      if (!file->GiveTo(uid, gid)) return Fail(file->error());
    if (attachments_ && !attachments_->GiveTo(uid, gid, &problem)) return Fail(problem);
    // The database and its write-ahead files, made by SQLite as root.
    for (const char* suffix : {"", "-wal", "-shm"}) {
      const std::string path = root() + "emails.sqlite" + suffix;
      if (open_database() && !root().empty() && ::lchown(path.c_str(), uid, gid) != 0 && errno != ENOENT)
        return Fail("cannot give " + path + " to the user: " + std::strerror(errno));
    }
    return true;
  }

  bool CheckWritable() {
    std::string problem;
    if (attachments_ && !attachments_->Writable(&problem)) return Fail(problem);
    return !copy_store_ || !copy_store_->placed() || copy_store_->Writable(&problem) || Fail(problem);
  }

  IPelkaFlowClient* StartModule(CPAEBaseModule* module) {
    if (!module) return nullptr;
    module->SetHost(&host_);
    if (auto* module_notify = Query<IPelkaModuleNotify>(module, kModuleNotifyId)) module_notify->SetNotify(&notify_);
    module->Initialize();
    module->RegisterOutputs();
    if (auto* diagnosis_client = Query<IPelkaDiagnosisClient>(module, kDiagnosisClientId))
      diagnosis_client->DefineDiagnosisEvents();
    statistics_.DefineClients();
    // Exporting the empty batch writes the header line alone.
    if (options_.lines_at_once && log_) log_->Finish();
    client_ = Query<IPelkaFlowClient>(module, kFlowClientId);
    return client_;
  }

  bool FinishRun(CPAEBaseModule* module) {
    // A second call would export and uninitialise twice.
    if (finished_) return error_.empty();
    finished_ = true;
    if (log_) log_->Finish();
    // Every attachment is listed and counted before the figures are read
    // and the database is closed.
    if (attachments_) attachments_->Finish();
    AddNoticeFigures();
    AddAttachmentFigures();
    WriteStatistics();
    if (open_database()) CloseDatabase();
    statistics_.DetachClients();
    if (module) module->Uninitialize();
    for (auto [file, name] : Files()) {
      file->Close();
      if (!file->error().empty()) Fail(file->error());
    }
    if (attachments_ && !attachments_->file().Close()) Fail(attachments_->file().error());
    return error_.empty();
  }

  std::string folder() const { return root(); }

  bool FinishFolder(uint64_t packets, uint64_t bytes) {
    if (root().empty()) return error_.empty();
    log_->Finish();
    WriteStatistics();
    {
      // The folder is finished: a live run's statistics writer leaves it be.
      const std::lock_guard<std::mutex> lock(statistics_mutex_);
      folder_.clear();
    }
    if (RunDatabase* database = open_database()) {
      for (const auto& [sequence, bound] : open_flows_)
        database->OnConnectionEnd(&bound->flow, bound->tally, "continued");
      run_totals_.packets = packets;
      run_totals_.bytes = bytes;
      CloseDatabase();
    }
    for (auto [file, name] : Files()) {
      file->Close();
      if (!file->error().empty()) Fail(file->error());
    }
    return error_.empty();
  }

  bool StartFolder(const std::string& folder, uint64_t packets, uint64_t bytes) {
    {
      // The period's counters start here, under the lock the statistics
      // writer reads them with.
      const std::lock_guard<std::mutex> lock(statistics_mutex_);
      folder_ = folder;
      statistics_.StartPeriod();
      drops_base_ = kernel_drops_ ? kernel_drops_() : 0;
    }
    std::string problem;
    if (copy_store_ && !copy_store_->MoveTo(folder, &problem)) Fail(problem);
    for (auto [file, name] : Files())
      if (!file->Open(folder + name)) Fail(file->error());
    log_->StartNewFolder(ModuleStorageRoot(folder));
    if (RunDatabase* database = open_database()) {
      OpenDatabase(folder + "emails.sqlite");
      for (const auto& [sequence, bound] : open_flows_) {
        StartConnectionRow(*database, *bound);
        bound->tally = CarriedTally(bound->tally);
      }
    }
    const HostRunCounts now = counts();
    period_base_ = {packets, bytes, now.records, now.entries, now.diagnosis_reports, now.copies, now.flows_bound};
    if (options_.lines_at_once) log_->Finish();
    return error_.empty();
  }

  std::string StatisticsJson() const {
    if (!kernel_drops_) return statistics_.ToJson();
    const auto drops = static_cast<uint64_t>(std::max<int64_t>(kernel_drops_() - drops_base_, 0));
    return statistics_.ToJson({{"Kernel", "Dropped", drops}});
  }

  bool WriteStatistics() {
    const std::lock_guard<std::mutex> lock(statistics_mutex_);
    if (folder_.empty()) return false;
    std::string problem;
    return ReplaceFile(folder_, "statistics.json", StatisticsJson() + "\n", &problem) || Fail(problem);
  }

  // --- FlowSink ---------------------------------------------------------------------
  bool OnFlowStart(TrackedFlow& tracked) override {
    if (!client_) return Declined();
    auto bound = std::make_unique<BoundFlow>(tracked, statistics_, *this, options_.max_flow_length);
    if (client_->BindFlow(&bound->flow, &bound->stats, &bound->context) != 0) return Declined();
    flows_bound_.fetch_add(1, std::memory_order_relaxed);
    if (RunDatabase* database = open_database()) StartConnectionRow(*database, *bound);
    // Only a rotating run (one thread) carries its connections into the next folder.
    if (options_.rotate) open_flows_.emplace(bound->sequence = next_sequence_++, bound.get());
    tracked.user_data = bound.release();
    return true;
  }

  void OnFlowPacket(TrackedFlow& tracked, const PacketRecord& record, const uint8_t* payload, uint32_t length,
                    uint32_t direction) override {
    auto* bound = static_cast<BoundFlow*>(tracked.user_data);
    if (!bound) return;
    bound->packet = GetPacketNumber(&record);
    bound->time_us = GetPacketTime(&record);
    bound->tally.Count(bound->time_us, direction, length);
    if (tracked.gaps() != bound->gaps_seen) bound->observer.OnGap();
    bound->gaps_seen = tracked.gaps();
    MailObserver::Split split;
    if (options_.pipelined && direction == kFromClient) split = bound->observer.PipelinedSplit(payload, length);
    uint32_t from = 0;
    for (const uint32_t cut : {split.at, split.after}) {
      if (cut <= from || cut >= length) continue;
      Deliver(*bound, record, payload + from, cut - from, direction);
      from = cut;
    }
    Deliver(*bound, record, payload + from, length - from, direction);
    bound->NoticeCapture(bound->packet);
    CheckWrites();
  }

  // A result of 1 (the module is done with the flow) changes nothing here:
  // the contract delivers every packet of a bound flow.
  void Deliver(BoundFlow& bound, const PacketRecord& record, const uint8_t* payload, uint32_t length,
               uint32_t direction) {
    client_->ProcessFlowData(&bound.flow, &record, payload, length, direction, &bound.node, bound.context);
    bound.observer.OnSegment(bound.packet, direction, payload, length, bound.flow.records());
  }

  void OnUnfollowedSyn(const DecodedPacket& packet, uint64_t number, uint64_t time_us) override {
    const char* protocol = UnfollowedMailProtocol(packet.destination_port);
    if (!protocol || RepeatedSyn(packet)) return;
    FlowEndpoint client{packet.source, packet.source_port};
    FlowEndpoint server{packet.destination, packet.destination_port};
    WriteNoticeLine(EndpointText(client), EndpointText(server), protocol, NoticeKind::kTlsPort, number, time_us);
  }

  // A SYN sent again (no answer came) opens no connection of its own: the
  // last few SYNs counted are remembered.
  bool RepeatedSyn(const DecodedPacket& packet) {
    const SynSeen syn{packet.source, packet.destination, packet.source_port, packet.destination_port,
                      packet.sequence};
    const std::lock_guard<std::mutex> lock(notice_mutex_);
    if (std::find(recent_syns_.begin(), recent_syns_.end(), syn) != recent_syns_.end()) return true;
    recent_syns_[next_syn_++ % recent_syns_.size()] = syn;
    return false;
  }

  void WriteNotice(const TrackedFlow& flow, NoticeKind kind, uint64_t packet, uint64_t time_us) override {
    WriteNoticeLine(EndpointText(flow.client()), EndpointText(flow.server()),
                    ConnectionProtocolText(flow.application_protocol()), kind, packet, time_us);
  }

  void WriteNoticeLine(const std::string& client, const std::string& server, const char* protocol, NoticeKind kind,
                       uint64_t packet, uint64_t time_us) {
    notice_counts_[static_cast<size_t>(kind)].fetch_add(1, std::memory_order_relaxed);
    NoticeRow row{{}, client, server, protocol, packet, time_us, NoticeKey(kind), NoticeText(kind)};
    const std::lock_guard<std::mutex> lock(notice_mutex_);
    row.time = notice_times_.Text(time_us / 1000000);
    if (RunDatabase* database = open_database()) database->OnNotice(row);
    JsonObjectLine line;
    line.Text("time", row.time);
    line.Text("client", row.client);
    line.Text("server", row.server);
    line.Text("protocol", row.protocol);
    line.Number("packet", row.packet);
    line.Text("kind", row.kind);
    line.Text("text", row.text);
    notices_file_.WriteLine(line.Finish());
  }

  void OnFlowEnd(TrackedFlow& tracked, FlowEndReason reason) override {
    std::unique_ptr<BoundFlow> bound(static_cast<BoundFlow*>(tracked.user_data));
    tracked.user_data = nullptr;
    if (bound && options_.rotate) open_flows_.erase(bound->sequence);
    if (bound) {
      bound->observer.OnEnd(bound->packet, bound->flow.records());
      client_->UnbindFlow(&bound->flow, &bound->stats, &bound->node, bound->context);
    }
    if (RunDatabase* database = open_database(); bound && database)
      database->OnConnectionEnd(&bound->flow, bound->tally, ConnectionEndText(reason));
    CheckWrites();
  }

  void FlushOutputs() {
    for (auto [file, name] : Files()) file->Flush();
    if (attachments_) attachments_->file().Flush();
    if (RunDatabase* database = open_database()) database->Commit();
    CheckWrites();
  }

  HostRunCounts counts() const {
    HostRunCounts counts;
    counts.flows_bound = flows_bound_.load(std::memory_order_relaxed);
    counts.flows_declined = flows_declined_.load(std::memory_order_relaxed);
    if (log_) {
      counts.records = log_->records();
      counts.records_by_protocol = log_->records_by_protocol();
      counts.entries = log_->entries();
      counts.copies = log_->copies();
    }
    if (copy_store_) {
      counts.copy_failures = copy_store_->failures();
      counts.first_copy_failure = copy_store_->first_failure();
    }
    for (size_t kind = 0; kind < kNoticeKindCount; ++kind)
      counts.notices[kind] = notice_counts_[kind].load(std::memory_order_relaxed);
    counts.diagnosis_reports = diagnosis_.reports();
    counts.reports_by_event = diagnosis_.reports_by_event();
    for (auto [file, name] : Files()) {
      if (const uint64_t lost = file->lines_lost()) counts.lines_lost.emplace_back(name, lost);
    }
    if (attachments_) {
      counts.attachments = attachments_->tally();
      if (const uint64_t lost = attachments_->file().lines_lost())
        counts.lines_lost.emplace_back(AttachmentTaker::kFileName, lost);
    }
    return counts;
  }

  HostOptions options_;
  // Held until every file is closed, so declared before them.
  std::unique_ptr<OutputLock> lock_;
  // Outlives the log service, which moves the copies into it.
  std::unique_ptr<CopyStore> copy_store_;
  HostNotify notify_;
  HostIconService icons_;
  HostStatService statistics_;
  OutputFile records_file_, entries_file_, diagnosis_file_, notices_file_, csv_file_, text_file_;
  std::mutex notice_mutex_;  // one notice line at a time
  LocalTimeCache notice_times_;
  std::array<std::atomic<uint64_t>, kNoticeKindCount> notice_counts_{};
  struct SynSeen {
    IpAddress source, destination;
    uint16_t source_port = 0, destination_port = 0;
    uint32_t sequence = 0;
    friend bool operator==(const SynSeen&, const SynSeen&) = default;
  };
  std::array<SynSeen, 32> recent_syns_{};
  size_t next_syn_ = 0;
  std::function<int64_t()> kernel_drops_;
  mutable std::mutex statistics_mutex_;  // one writer of statistics.json at a time
  HostDiagnosisService diagnosis_;
  std::unique_ptr<RunDatabase> database_;
  RunTotals run_totals_;
  std::unique_ptr<AttachmentTaker> attachments_;  // before the log, which hands it the messages
  std::unique_ptr<HostLogService> log_;
  HostObject host_;
  // The current output folder, absolute, ending with '/'; guarded by
  // statistics_mutex_, whose writer may run on another thread.
  std::string folder_;
  // A rotating run: the flows bound now, in the order they came, and where
  // the current folder's period began.
  std::map<uint64_t, BoundFlow*> open_flows_;
  uint64_t next_sequence_ = 0;
  RunTotals period_base_;
  int64_t drops_base_ = 0;
  IPelkaFlowClient* client_ = nullptr;
  // Flows start, are handled and end on the workers' threads: what they count
  // is atomic, and the first failure is taken under a lock.
  std::atomic<uint64_t> flows_bound_{0};
  std::atomic<uint64_t> flows_declined_{0};
  std::mutex error_mutex_;
  std::string error_;
  bool finished_ = false;

 private:
  // Asked after every packet, so it is a fixed array, not a fresh list.
  template <typename File>
  using FileList = std::array<std::pair<File*, const char*>, 6>;
  FileList<OutputFile> Files() { return FilesOf<OutputFile>(*this); }
  FileList<const OutputFile> Files() const { return FilesOf<const OutputFile>(*this); }
  template <typename File, typename Self>
  static FileList<File> FilesOf(Self& self) {
    return {{{&self.records_file_, "emails.jsonl"},
             {&self.entries_file_, "entries.jsonl"},
             {&self.diagnosis_file_, "diagnosis.jsonl"},
             {&self.notices_file_, "notices.jsonl"},
             {&self.csv_file_, "email_log.csv"},
             {&self.text_file_, "email_log.txt"}}};
  }
  std::string root() const {
    const std::lock_guard<std::mutex> lock(statistics_mutex_);
    return folder_;
  }

  bool Fail(const std::string& problem) {
    const std::lock_guard<std::mutex> lock(error_mutex_);
    if (error_.empty()) error_ = problem;
    failed_.store(true, std::memory_order_release);
    return false;
  }
  RunDatabase* open_database() { return options_.database ? database_.get() : nullptr; }
  // The database is one more sink of the record, entry and report writers; a
  // database that fails leaves the other outputs as they are.
  void OpenDatabase(const std::string& path) {
    database_->CommitEachRow(options_.lines_at_once);
    database_->Open(path, options_.run);
    diagnosis_.set_sink(database_.get());
  }
  void CloseDatabase() {
    database_->AddStatistics(statistics_);
    const HostRunCounts run = counts();
    // The period's share: all of it, unless the run rotates.
    RunTotals totals = run_totals_;
    totals.packets -= period_base_.packets;
    totals.bytes -= period_base_.bytes;
    totals.messages = run.records - period_base_.messages;
    totals.entries = run.entries - period_base_.entries;
    totals.diagnosis_reports = run.diagnosis_reports - period_base_.diagnosis_reports;
    totals.copies = run.copies - period_base_.copies;
    totals.connections = run.flows_bound - period_base_.connections;
    totals.kernel_drops = kernel_drops_ ? kernel_drops_() - drops_base_ : -1;
    database_->BeginClose(totals);
  }

  // Every kind, in one order, once there is any notice: runs merged in any
  // order then add up to the same text.
  void AddNoticeFigures() {
    const HostRunCounts run = counts();
    if (std::all_of(run.notices.begin(), run.notices.end(), [](uint64_t count) { return count == 0; })) return;
    for (size_t kind = 0; kind < kNoticeKindCount; ++kind)
      statistics_.AddHostFigure("Notices", std::string(NoticeKey(static_cast<NoticeKind>(kind))), run.notices[kind]);
  }

  // Under "Capture", beside the notices.
  void AddAttachmentFigures() {
    if (!attachments_) return;
    for (const auto& [counter, value] : attachments_->Figures()) statistics_.AddHostFigure("Attachments", counter, value);
  }

  bool Declined() {
    flows_declined_.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
  // Runs after every packet: one atomic flag while all is well (the files'
  // own flags lie on as many cache lines, which the packet's work has
  // usually pushed out).
  void CheckWrites() {
    if (!file_failed_.load(std::memory_order_acquire) || failed_.load(std::memory_order_acquire)) return;
    for (auto [file, name] : Files())
      if (file->failed()) Fail(file->error());
  }

  std::atomic<bool> failed_{false};
  // Raised by any of Files() that failed.
  std::atomic<bool> file_failed_{false};
};

HostServices::HostServices(HostOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
HostServices::~HostServices() = default;

bool HostServices::Open() { return impl_->Open(); }
bool HostServices::GiveTo(uid_t uid, gid_t gid) { return impl_->GiveTo(uid, gid); }
bool HostServices::CheckWritable() { return impl_->CheckWritable(); }
void HostServices::FlushOutputs() { impl_->FlushOutputs(); }
IPelkaHost* HostServices::host() { return &impl_->host_; }
IPelkaNotify* HostServices::notify() { return &impl_->notify_; }
IPelkaFlowClient* HostServices::StartModule(CPAEBaseModule* module) { return impl_->StartModule(module); }
void HostServices::SetFlowClient(IPelkaFlowClient* client) { impl_->client_ = client; }
FlowSink* HostServices::flow_sink() { return impl_.get(); }
bool HostServices::FinishRun(CPAEBaseModule* module) { return impl_->FinishRun(module); }
void HostServices::FinishDatabase() {
  if (impl_->database_) impl_->database_->Finish();
}
bool HostServices::FinishFolder(uint64_t packets, uint64_t bytes) { return impl_->FinishFolder(packets, bytes); }
bool HostServices::StartFolder(const std::string& folder, uint64_t packets, uint64_t bytes) {
  return impl_->StartFolder(folder, packets, bytes);
}
std::string HostServices::folder() const { return impl_->folder(); }
bool HostServices::WriteStatistics() { return impl_->WriteStatistics(); }
std::string HostServices::StatisticsJson() const { return impl_->StatisticsJson(); }
void HostServices::SetKernelDrops(std::function<int64_t()> read) { impl_->kernel_drops_ = std::move(read); }
const std::string& HostServices::error() const { return impl_->error_; }
HostRunCounts HostServices::counts() const { return impl_->counts(); }
void HostServices::SetReadTotals(uint64_t packets, uint64_t bytes, bool interrupted) {
  impl_->run_totals_.packets = packets;
  impl_->run_totals_.bytes = bytes;
  impl_->run_totals_.interrupted = interrupted;
}
std::string HostServices::database_error() const {
  return impl_->database_ ? impl_->database_->error() : std::string();
}
uint64_t HostServices::database_rows_lost() const {
  return impl_->database_ ? impl_->database_->rows_lost() : 0;
}
void HostServices::AddStatistic(const std::string& item, const std::string& counter, uint64_t value) {
  impl_->statistics_.AddHostFigure(item, counter, value);
}

}  // namespace pelka
