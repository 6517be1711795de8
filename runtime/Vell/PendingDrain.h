// PendingDrain: keys that wait for a task, and the walk that works them off in slices.
//
// A stage whose work may be large defers it: a handler records the key that needs work and
// makes sure the stage's task will run; the task's run walks the recorded keys, handling one
// at a time until the scheduler asks it to yield, and schedules itself again while keys are
// left. This type is that set and that walk, so every deferring stage shares one rule for
// where a run starts, when it stops, when another run follows and what a failure does.
//
// - The set is kept in hash order; recording a key that is already waiting changes nothing.
// - A run handles at least one key and stops after the first key for which the task's
//   taskShouldYield() says yes; it counts the keys it handled into the task's work count.
// - Where a run starts (chosen at construction): `atBookmark` resumes behind the last key the
//   previous run handled, so keys recorded again and again near the start of the hash order
//   cannot starve those behind them; `atStart` always begins at the first key. The bookmark
//   is dropped (the next run starts at the first key) when a run ends past the last key, and
//   whenever the set is empty.
// - Another run is scheduled when, and only when, keys are left after a run.
// - Failure rule: a key leaves the set before its handler runs. When the handler throws, the
//   bookmark is placed behind that key, another run is scheduled if keys are left, and the
//   exception goes on unchanged to whoever ran the task. So a key whose work fails is not
//   retried by every later run (it comes back when its next change records it again), the
//   keys behind it are not held up, the keys already handled in the run stay handled, and the
//   error still reaches the host, which decides what a failure means.
// - A key recorded again while its own handler runs is handled again, in this run or a later
//   one: the handler may have read the state before the change that recorded it.
// - When the set runs empty its memory is given back: a walk of a sparse table visits its
//   empty slots, so a burst must not leave every later walk paying for it.
//
// Single-threaded, like the tasks that run it.
#pragma once

#include <optional>
#include <utility>

#include "Mosk/HashMap.h"
#include "Vell/Task.h"

namespace Vell {

template <class Key, class Hasher = Mosk::KeyHash<Key>>
class PendingDrain {
 public:
  enum class Resume { atBookmark, atStart };

  // What one run did, for the stage's own traces.
  struct Slice {
    U32 count = 0;
    bool yielded = false;
    // The key at which the next run will start, when this run placed a bookmark.
    Key const* bookmark = nullptr;
  };

  explicit PendingDrain(Resume resume = Resume::atBookmark) : resume_(resume) {}

  // Records `key`; true when it was not waiting yet.
  bool add(Key const& key) { return set_.set(key, true) == Set::Change::inserted; }
  bool contains(Key const& key) const { return set_.contains(key); }
  U32 size() const { return set_.size(); }
  bool empty() const { return set_.empty(); }
  // Forgets every key and the bookmark.
  void clear() {
    set_.clear();
    bookmark_.reset();
  }
  // The key at which the next run starts, or null when it starts at the first key.
  Key const* bookmark() const { return bookmark_ ? &*bookmark_ : nullptr; }

  // Schedules `task` when keys are waiting: what a stage calls after recording keys, so that
  // recording nothing runs nothing.
  void scheduleIfPending(Task& task) const {
    if (!set_.empty()) task.scheduleTask();
  }

  // One run of `task`: calls `handle(key)` for waiting keys, as described above.
  template <class Handle>
  Slice drain(Task& task, Handle&& handle) {
    Slice slice;
    Set const& walked = set_;
    auto cursor = (resume_ == Resume::atBookmark && bookmark_) ? walked.cursorAt(*bookmark_)
                                                               : walked.cursor();
    while (cursor) {
      Key const key = cursor.key();
      set_.erase(key);
      try {
        handle(key);
      } catch (...) {
        ++cursor;
        finish(task, cursor, slice);
        throw;
      }
      ++slice.count;
      // The cursor moves on from the erased key to the one now behind it.
      ++cursor;
      if (task.taskShouldYield()) {
        slice.yielded = true;
        break;
      }
    }
    finish(task, cursor, slice);
    if (slice.yielded && bookmark_) slice.bookmark = &*bookmark_;
    return slice;
  }

 private:
  using Set = Mosk::HashMap<Key, bool, Hasher>;

  // Places the bookmark at `next` (the key behind the last one handled, if any), counts the
  // work and schedules the next run while keys are left.
  template <class Cursor>
  void finish(Task& task, Cursor const& next, Slice const& slice) {
    task.taskWorkCountInc(slice.count);
    if (set_.empty()) {
      // Give back the room of a large burst.
      clear();
      return;
    }
    if (next && resume_ == Resume::atBookmark) {
      bookmark_ = next.key();
    } else {
      bookmark_.reset();
    }
    task.scheduleTask();
  }

  Set set_;
  std::optional<Key> bookmark_;
  Resume const resume_;
};

}  // namespace Vell
