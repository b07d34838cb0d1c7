#include "piece_queue.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tmsc::simulator {

PieceQueue::TimePoint PieceQueue::Add(std::vector<Piece> pieces, TimePoint busy_until) {
  TimePoint due = std::max(EventLoop::Clock::now(), busy_until);
  for (Piece& piece : pieces) {
    due += piece.pause;
    if (!piece.is_stray) {
      busy_until = due;
    }
    auto position = std::upper_bound(
        queue_.begin(), queue_.end(), due,
        [](TimePoint time, const QueuedPiece& queued) { return time < queued.due; });
    if (position == queue_.begin() && !queue_.empty() && queue_.front().sent > 0) {
      ++position;
    }
    queue_.insert(position, {due, std::move(piece.bytes), piece.is_damaged});
  }
  return busy_until;
}

PieceQueue::Result PieceQueue::Send(const Writer& write) {
  const TimePoint now = EventLoop::Clock::now();
  while (!queue_.empty() && queue_.front().due <= now) {
    QueuedPiece& piece = queue_.front();
    const ssize_t size =
        write(piece.bytes.data() + piece.sent, piece.bytes.size() - piece.sent, piece.is_damaged);
    if (size < 0) {
      return errno == EAGAIN ? Result::kBlocked : Result::kFailed;
    }
    piece.sent += static_cast<std::size_t>(size);
    if (piece.sent == piece.bytes.size()) {
      queue_.pop_front();
    }
  }
  return Result::kSent;
}

std::optional<PieceQueue::TimePoint> PieceQueue::FirstDue() const {
  return queue_.empty() ? std::nullopt : std::optional<TimePoint>(queue_.front().due);
}

}  // namespace tmsc::simulator
