#ifndef TAMSEL_LOG_CARD_FILE_H_
#define TAMSEL_LOG_CARD_FILE_H_

#include <string>

namespace tmsc {

/// A file that texts are appended to, open only as long as that takes, so that a card may be pulled
/// and a file removed in between. Anything but a regular file in its place is refused: a pipe would
/// hold the writer up, a link may lead to anybody's file. For one thread at a time.
class CardFile {
 public:
  enum class Folder {
    kOwn,
    /// Anybody may put something under the file's name: a second hard link is refused as well.
    kShared,
  };
  enum class Outcome { kWritten, kNotOpened, kNotWritten };

  CardFile() = default;
  explicit CardFile(std::string path, Folder folder = Folder::kOwn);

  /// Appends to the file, which is made when missing. After kNotWritten a part of the text may
  /// stand there.
  Outcome Append(const std::string& text) const;

  /// Brings the file to the card (fsync), with its folder and those above on the same file system:
  /// a file that was created has to be found again. False when the card does not have the data. A
  /// file that is gone has none, and a file system that cannot synchronise has nothing to report.
  bool Synchronise() const;

  /// Brings all of the file system that the folder is on to the card (syncfs), then the folder: for
  /// files that were renamed, since FAT writes their length only with the file itself. False as for
  /// Synchronise.
  bool SynchroniseCard() const;

 private:
  std::string path_;
  Folder folder_ = Folder::kOwn;
};

}  // namespace tmsc

#endif  // TAMSEL_LOG_CARD_FILE_H_
