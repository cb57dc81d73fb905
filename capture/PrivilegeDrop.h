// Giving up root for the rest of a run: `--user NAME`.
//
// A live capture needs root (or capture capabilities) only to open the
// interface. With --user the program starts as root, opens its inputs, and
// then continues as NAME for everything else: reading and parsing packets,
// the module's work and every file written after that point.
//
// The sequence, as RunCapture drives it:
//   1. Check, before anything is made: the program runs as root and NAME is
//      an existing user other than root. Notes whether the output directory
//      exists yet.
//   2. The inputs are opened (as root).
//   3. The output directory and its files are made and opened (as root), and
//      given to NAME (capture/HostServices.h).
//   4. Apply: an output directory this run made is given to NAME with the
//      files in it, since later files (statistics.json, email_copy/) are made
//      there after the switch; a directory that existed before is left as it
//      is. Then the supplementary groups, the group and the user are set to
//      NAME's, and the switch is checked: root cannot be regained, and NAME
//      can write in the output directory.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace pelka {

// The account a run continues as.
struct UserAccount {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
};

// Looks NAME up. Nullopt with `error` set when there is no such user.
std::optional<UserAccount> FindUser(const std::string& name, std::string* error);

// Sets the supplementary groups, the group and the user (real, effective and
// saved) to the account's, then checks that root cannot be regained. Needs
// root. False with `error` set when a step fails; the process may then hold a
// mix of old and new identities and must not go on with its work.
bool DropPrivileges(const UserAccount& account, std::string* error);

// The same for a user looked up by name; also refuses when the program does
// not run as root or the user is root.
bool DropPrivileges(const std::string& user, std::string* error);

// Gives the directory and the files directly in it to the account. Refuses a
// directory this process does not own; leaves alone every entry that is not
// a regular file of this process with one link (symbolic links, hard links to
// files elsewhere, anything else).
bool GiveDirectoryTo(const std::string& directory, const UserAccount& account, std::string* error);

// The whole --user sequence of one run (see the top of this file). With an
// empty user name every step does nothing and succeeds.
class PrivilegeDrop {
 public:
  PrivilegeDrop(std::string user, std::string out_dir);

  // Step 1. False with `error` set when the switch cannot happen; nothing has
  // been made or opened yet, so the run can stop cleanly.
  bool Check(std::string* error);

  // Step 4, after the inputs are open. False with `error` set; the run must
  // then read nothing.
  bool Apply(std::string* error);

  // The account of --user after a successful Check; nullopt without --user.
  const std::optional<UserAccount>& account() const { return account_; }

 private:
  std::string user_;
  std::string out_dir_;
  std::optional<UserAccount> account_;
  bool out_dir_is_new_ = false;
};

}  // namespace pelka
