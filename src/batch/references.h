// The reference frames of a batch, each prepared once and kept only while
// captures still to run need it.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "batch/capture_list.h"
#include "framealign/framealign.h"

// Every reference frame prepared once, by the first capture that needs it,
// and kept only while captures still to run need it; a reference that
// cannot be prepared is remembered with its reason.
class References {
 public:
  explicit References(const std::vector<const CaptureJob*>& pending) {
    for (const CaptureJob* job : pending) ++users_[job->reference];
  }

  framealign::Reference get(const ReferenceFrame& frame) {
    std::shared_ptr<Entry> entry;
    {
      std::lock_guard<std::mutex> guard(lock_);
      std::shared_ptr<Entry>& slot = entries_[frame];
      if (!slot) slot = std::make_shared<Entry>();
      entry = slot;
    }
    std::call_once(entry->once, [&] {
      try {
        entry->reference = framealign::Reference::from_yuv(frame.path, frame.width, frame.height,
                                                           frame.frame_number);
      } catch (const framealign::Error& e) {
        entry->error = e.what();
      }
    });
    if (!entry->reference) throw framealign::Error(entry->error);
    return *entry->reference;
  }

  // One capture of `frame` is done with it; after the last, its frame and
  // features are freed (once the captures in flight let go of them).
  void done(const ReferenceFrame& frame) {
    std::lock_guard<std::mutex> guard(lock_);
    if (--users_[frame] <= 0) entries_.erase(frame);
  }

 private:
  struct Entry {
    std::once_flag once;
    std::optional<framealign::Reference> reference;
    std::string error;
  };
  std::mutex lock_;
  std::map<ReferenceFrame, std::shared_ptr<Entry>> entries_;
  std::map<ReferenceFrame, int> users_;
};
