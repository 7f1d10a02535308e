#pragma once

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelorus/pelorus/constants.h"
#include "pelorus/pelorus/listen/key_outcome.h"
#include "pelorus/pelorus/settings.h"
#include "skein/loops.h"
#include "skein/next_turn.h"

namespace pelorus {

class CurlMulti;
class KeyExchange;

/// Asks the administration web server about node keys, over HTTPS and without blocking the loop:
/// at most eight keys at a time, line by line and in each line first come first served, one that
/// has to change its line behind those who stand there. A key may be asked about twice at a time;
/// whether it should be is the caller's to say. Owned by NodeServer; borrows settings and loop.
class KeyVerification {
 public:
  using Done = std::function<void(KeyOutcome)>;
  /// So that any number of made-up keys keeps no known node waiting, and none that is still there
  /// while those who brought the keys go at once.
  enum class Line {
    KNOWN,    ///< has been confirmed before
    PRESENT,  ///< who brought the key is still there
    GONE,
  };
  static constexpr std::size_t LINES = 3;
  /// In which line a key is now. Looked at when it is asked about and when its turn has come: it
  /// may have to stand behind another line then.
  using FindLine = std::function<Line()>;

  /// Throws skein::Failure.
  KeyVerification(const Settings& settings, skein::Loop& loop,
                  std::string url = std::string(NODE_KEY_VERIFICATION_API_URL));
  /// Breaks off what is under way; nobody is called back any more.
  ~KeyVerification();

  /// Sends `key`, any bytes, when its turn has come; LOCAL_WWW_KEY is read then, and the time-outs
  /// begin. `done` is called exactly once, on a later turn of the loop. It may ask again, and may
  /// destroy this.
  void do_auth_check(std::string key, Done done, FindLine line);

 private:
  struct Waiting {
    std::string key;
    Done done;
    FindLine line;
  };
  void line_up(Waiting waiting);
  std::optional<Waiting> take_next();
  void start_waiting();
  void start(KeyExchange& exchange, Waiting next);

  std::unique_ptr<CurlMulti> multi_;
  std::vector<std::unique_ptr<KeyExchange>> exchanges_;  // leave multi_ when they are destroyed
  std::vector<KeyExchange*> idle_;                       ///< those of them without a key
  std::array<std::deque<Waiting>, LINES> lines_;
  skein::NextTurn next_turn_;
};

}  // namespace pelorus
