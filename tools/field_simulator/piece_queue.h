#ifndef TAMSEL_FIELD_SIMULATOR_PIECE_QUEUE_H_
#define TAMSEL_FIELD_SIMULATOR_PIECE_QUEUE_H_

#include <cstddef>
#include <deque>
#include <functional>
#include <optional>
#include <vector>

#include "answer.h"
#include "event_loop.h"

namespace tmsc::simulator {

/// The pieces still to be sent on one descriptor, each with the time it is due. One thread at a
/// time.
class PieceQueue {
 public:
  using TimePoint = EventLoop::TimePoint;

  /// What became of an attempt to send.
  enum class Result {
    kSent,     ///< Nothing that is due is left.
    kBlocked,  ///< There is no room for what is due.
    kFailed,   ///< The other side is gone; errno tells.
  };

  /// Queues the pieces of an answer that starts now, or when `busy_until` has passed. Returns when
  /// the last piece that is not stray is due, for the answer after this one.
  [[nodiscard]] TimePoint Add(std::vector<Piece> pieces, TimePoint busy_until);

  /// Writes bytes, damaged ones in place of what they were, and returns like write(2).
  using Writer =
      std::function<ssize_t(const std::uint8_t* bytes, std::size_t size, bool is_damaged)>;
  /// Writes what is due. A writer does not block, and SIGPIPE must be blocked or ignored.
  Result Send(const Writer& write);

  /// When the first piece is due; empty when there is none.
  std::optional<TimePoint> FirstDue() const;
  std::size_t Size() const { return queue_.size(); }
  /// Drops the first piece, sent in part or not at all; there must be one.
  void DropFirst() { queue_.pop_front(); }
  void Clear() { queue_.clear(); }

 private:
  struct QueuedPiece {
    TimePoint due;
    Bytes bytes;
    bool is_damaged;
    std::size_t sent = 0;
  };

  /// In order of time.
  std::deque<QueuedPiece> queue_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_PIECE_QUEUE_H_
