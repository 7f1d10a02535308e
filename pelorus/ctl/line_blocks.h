#pragma once

#include <cstddef>
#include <string>

namespace pelorus::ctl {

/// Cuts what comes from a descriptor into blocks of whole lines.
class LineBlocks {
 public:
  /// Most bytes of one block.
  static constexpr std::size_t BLOCK_BYTES = 64U << 10;

  /// Borrows the descriptor.
  explicit LineBlocks(int descriptor) : descriptor_(descriptor) {}

  /// The next block, as large as whole lines allow; empty at the end. A newline that is missing
  /// behind the last line is added. Throws skein::Failure: cannot read, or a line that is longer
  /// than a block.
  std::string next();

 private:
  void fill();

  int descriptor_;
  bool ended_ = false;
  std::string unread_;  // up to one block
};

}  // namespace pelorus::ctl
