// The result root as the batch keeps it: one run at a time (a lock), the
// folders it made told apart from everything else (marks under .made/),
// and results put in place only whole (built under .partial/, flushed to
// the disk, swapped in). Nothing the batch did not make is ever removed.
#pragma once

#include <set>
#include <stdexcept>
#include <string>

// The root cannot be used: empty, not a folder, or locked by another run.
class RootError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ResultRoot {
 public:
  // Creates `path` and its .partial/ and .made/ folders when missing and
  // takes the lock file .lock<lock_tag> for the life of this object (the
  // kernel drops it when the process dies). Throws RootError naming the
  // lock and the process holding it when another run has it.
  ResultRoot(const std::string& path, const std::string& lock_tag);
  ~ResultRoot();
  ResultRoot(const ResultRoot&) = delete;
  ResultRoot& operator=(const ResultRoot&) = delete;

  // Ids whose results the journals and summaries record: folders the batch
  // made before it marked them, which count as its own.
  void add_recorded(const std::set<std::string>& ids) { recorded_.insert(ids.begin(), ids.end()); }

  // "" unless <root>/<id> holds the result of another capture than `input`
  // (the list gave the id to another picture; the mark names the capture);
  // then why it is left alone.
  std::string other_capture(const std::string& id, const std::string& input) const;

  const std::string& path() const { return path_; }
  std::string folder(const std::string& id) const;   // <root>/<id>
  std::string partial(const std::string& id) const;  // <root>/.partial/<id>

  // "" when <root>/<id> is free for the batch (absent, or made by it);
  // otherwise why it is not, naming the path.
  std::string foreign(const std::string& id) const;
  // Whether <root>/<id> holds a finished result of the batch.
  bool has_result(const std::string& id) const;
  // An empty .partial/<id>, for a new result to be built in.
  std::string fresh_partial(const std::string& id) const;
  // Flushes every file of .partial/<id> to the disk, marks <id> as the
  // batch's result of `input`, and swaps the folder in for <root>/<id> (the
  // earlier result, if any, is removed after); on return the new folder's
  // name is on the disk.
  void install(const std::string& id, const std::string& input);
  // Removes .partial/<id>, if any.
  void discard(const std::string& id) const;

 private:
  std::string path_;
  std::set<std::string> recorded_;
  int lock_fd_ = -1;
};
