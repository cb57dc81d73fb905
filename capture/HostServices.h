// The capture host's services for one run, behind one facade.
//
// The program makes a HostServices with its options, opens it (output
// directory and files), hands the module over with StartModule, feeds the flow
// tracker into flow_sink(), and ends with FinishRun (a rotating run's files
// are in folders below the output directory, one after another: FinishFolder,
// StartFolder). Every file of the output directory is written as the module produces it, in whole lines at least
// every second, so an interrupted run keeps what was found until then:
//
//   emails.jsonl      one object per posted email record
//   entries.jsonl     the summary entries the module adds
//   diagnosis.jsonl   one object per diagnosis report
//   notices.jsonl     one object per coverage notice: what went by in a mail
//                     connection that the module did not record, and why
//                     (capture/Notices.h, capture/MailObserver.h)
//   email_log.csv     the module's export lines, comma-separated form
//   email_log.txt     the module's export lines, text form
//   statistics.json   the counters the module defined, written by FinishRun
//                     (and by WriteStatistics while the run goes on)
//   emails.sqlite     all of the above as one database (capture/RunDatabase.h)
//   email_copy/       the ".eml" copies, when copies are switched on
//   attachments.jsonl, attachments/   with `attachments`: every recorded
//                     message's attachments (capture/AttachmentTaker.h)
//
// The first write failure is remembered (error()); the lines written before
// it stay whole. The program reports it and exits with status 1. The
// database fails on its own (database_error()): the files go on without it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capture/AttachmentTaker.h"
#include "capture/EmailConditions.h"
#include "capture/FlowSink.h"
#include "capture/Notices.h"
#include "capture/RunDatabase.h"
#include "host/FlowInterfaces.h"
#include "host/ModuleInterfaces.h"

namespace pelka {

struct HostOptions {
  // Output directory; created (with missing parents) when absent.
  std::string out_dir;
  // Write the ".eml" copies under <out_dir>/email_copy/.
  bool copies = false;
  // Directory of the module's resources (string table "PelkaEmailRes.cst",
  // "email.ico"), ending with '/' (added when missing). Empty: the module
  // gets an empty path and looks for its files by bare name in the working
  // directory; give a directory without the files to be sure of no table.
  std::string resource_dir;
  // False switches every diagnosis event off.
  bool diagnosis_enabled = true;
  // Response-time thresholds of the slow-response events, in milliseconds;
  // negative keeps the module's default (200).
  int32_t smtp_threshold_ms = -1;
  int32_t pop3_threshold_ms = -1;
  // Write every output line, export lines included, as soon as it is made
  // (input from an interface or a pipe) rather than in batches of up to a
  // second (capture files); the export files get their header line at once.
  bool lines_at_once = false;
  // The record lines and export lines are written by a thread of their own,
  // in the order their batches filled, while the analysing threads go on.
  bool write_behind = false;
  // The user's e-mail conditions: a message that does not meet them leaves
  // no record, no export line, no summary entry and no copy. Unset: every
  // message is kept.
  std::optional<EmailConditions> conditions;
  // Write emails.sqlite too, with `run` in its table run.
  bool database = true;
  RunDescription run;
  // The module's limit of one message, in bytes, as the observer must know it.
  uint64_t max_flow_length = uint64_t{2} << 20;
  // Splits an SMTP client segment at a DATA or BDAT command line that does
  // not start it, so that the module sees the command (--pipelined).
  bool pipelined = false;
  // out_dir is the parent of output folders that StartFolder opens one
  // after another: Open only takes its lock.
  bool rotate = false;
  // Take every recorded message's attachments out of its copy (made for
  // that even without `copies`); not with `rotate`. Matched against
  // `ioc_hashes` when set.
  bool attachments = false;
  std::shared_ptr<const IocHashes> ioc_hashes;
};

// What the run produced, for the program's summary.
struct HostRunCounts {
  uint64_t records = 0;            // records posted (and kept): lines of emails.jsonl if all were written
  std::map<std::string, uint64_t> records_by_protocol;  // the same by protocol text
  uint64_t entries = 0;            // lines of entries.jsonl
  uint64_t copies = 0;             // records that name a copy file
  uint64_t copy_failures = 0;      // copies that could not be written or placed
  std::string first_copy_failure;  // why the first of them failed
  uint64_t diagnosis_reports = 0;  // lines of diagnosis.jsonl
  std::map<std::string, uint64_t> reports_by_event;  // event key -> reports
  uint64_t flows_bound = 0;        // flows the module took
  uint64_t flows_declined = 0;     // flows the module refused
  NoticeCounts notices{};          // lines of notices.jsonl by kind
  AttachmentTally attachments;     // with HostOptions::attachments
  // Output files that lost lines (a full disk): file name -> lines lost.
  std::vector<std::pair<std::string, uint64_t>> lines_lost;
};

class HostServices {
 public:
  explicit HostServices(HostOptions options);
  ~HostServices();
  HostServices(const HostServices&) = delete;
  HostServices& operator=(const HostServices&) = delete;

  // Creates the output directory, takes its lock (one run per folder; see
  // capture/OutputLock.h), makes the copy folder (capture/CopyStore.h) and
  // opens the output files. False, with error() saying why, when the
  // directory cannot be made or written, another run holds it, or the copy
  // folder is not a plain directory of its own.
  bool Open();

  // --user: gives what Open made to the account, before the run switches to
  // it; then, after the switch, CheckWritable says whether the copies can
  // still be placed. False with error() set.
  bool GiveTo(uid_t uid, gid_t gid);
  bool CheckWritable();

  // The host objects the module is given.
  IPelkaHost* host();
  IPelkaNotify* notify();

  // Drives the module's start: SetHost, SetNotify, Initialize,
  // RegisterOutputs, DefineDiagnosisEvents, then the statistics client's
  // DefineStatistics and AssignStatisticIndexes. Returns the module's flow
  // client, now also the one flow_sink() delivers to; null when the module
  // has none. Call after Open.
  IPelkaFlowClient* StartModule(CPAEBaseModule* module);

  // Delivers flows to another flow client (tests, or a module driven without
  // StartModule). Null: every flow is declined.
  void SetFlowClient(IPelkaFlowClient* client);

  // The tracker's sink: binds each offered flow to the flow client (with its
  // flow object, flow node and per-flow statistics), delivers every packet
  // through ProcessFlowData and unbinds the flow at its end.
  FlowSink* flow_sink();

  // Ends the run after the tracker's Finish: the export lines of the records
  // not yet exported, the statistics client's DetachStatistics (after
  // statistics.json is written), the module's Uninitialize, and the files
  // closed. `module` may be null (then only the host's side is finished).
  // Only the first call acts. False, with error(), when any write of the run
  // failed.
  // The database's indices are still being built when it returns (the
  // report can be written meanwhile): FinishDatabase waits for them.
  bool FinishRun(CPAEBaseModule* module);
  // Waits until the database is complete and closed; its problems are then
  // in database_error(). Safe without a database, and more than once.
  void FinishDatabase();

  // HostOptions::rotate: the outputs switch to another folder between two
  // packets, on the thread that delivers them; the module and its flows go
  // on as they are. FinishFolder exports what is pending, writes the
  // folder's statistics.json (the counters of its period only), closes its
  // database (its run row has the period's totals, given the capture's
  // totals so far) and its files. StartFolder makes `folder` (absolute,
  // ending with '/') the current one: new files, the copies placed into its
  // email_copy/, a new database into which the connections still open are
  // carried (a new row each; the old folder's rows say "continued"), and
  // counters from zero. FinishRun closes the last folder. False with
  // error() set.
  bool FinishFolder(uint64_t packets, uint64_t bytes);
  bool StartFolder(const std::string& folder, uint64_t packets, uint64_t bytes);
  // The current output folder (absolute, ending with '/'); empty before the
  // first StartFolder of a rotating run.
  std::string folder() const;

  // Writes out the lines the output files gather (they write on their own
  // every 64 KiB or second of output); for a live capture with no traffic.
  void FlushOutputs();

  // Replaces statistics.json with the counters as they stand (a live run
  // calls it from a thread of its own; readers never see half a file). False
  // when it cannot be written; the run's error() then says why.
  bool WriteStatistics();
  // What WriteStatistics writes, without its line end.
  std::string StatisticsJson() const;

  // Live capture: where the kernel's drop count is read, added to
  // statistics.json as {"Capture": {"Kernel": {"Dropped": N}}}. Set before the run.
  void SetKernelDrops(std::function<int64_t()> read);
  // What the capture side read, for the database's table run; call before
  // FinishRun.
  void SetReadTotals(uint64_t packets, uint64_t bytes, bool interrupted);
  // The database's first failure, and the rows it could not take; read them
  // after FinishRun (or right after Open).
  std::string database_error() const;
  uint64_t database_rows_lost() const;

  // The first failure of the run (open or write); empty while all is well.
  const std::string& error() const;
  bool failed() const { return !error().empty(); }

  HostRunCounts counts() const;

  // A figure of the capture side for statistics.json (see
  // HostStatService::AddHostFigure); call before FinishRun.
  void AddStatistic(const std::string& item, const std::string& counter, uint64_t value);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pelka
