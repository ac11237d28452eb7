// compress.hpp: streams made small. Those of boards of one kind differ by little, so that a dictionary made of some
// says most of what is in the others.
#pragma once

#include <zstd.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kepfleet {

struct FreeZstd {
  void operator()(ZSTD_CCtx *context) const { ZSTD_freeCCtx(context); }
  void operator()(ZSTD_DCtx *context) const { ZSTD_freeDCtx(context); }
  void operator()(ZSTD_CDict *dictionary) const { ZSTD_freeCDict(dictionary); }
  void operator()(ZSTD_DDict *dictionary) const { ZSTD_freeDDict(dictionary); }
};

// Made ready for a way when that is first gone.
class Dictionary {
 public:
  explicit Dictionary(std::string content) : content_(std::move(content)) {}
  const ZSTD_CDict *toCompress();
  const ZSTD_DDict *toDecompress();
  const std::string &content() const { return content_; }

 private:
  std::string content_;
  std::unique_ptr<ZSTD_CDict, FreeZstd> toCompress_;
  std::unique_ptr<ZSTD_DDict, FreeZstd> toDecompress_;
};

// Neither checks nor sizes are stored with a stream: the database keeps the one, its row the other.
class Compressor {
 public:
  Compressor();

  // With a dictionary or none. Empty: it does not get smaller.
  std::optional<std::string> compress(std::string_view stream, Dictionary *dictionary);

  // Throws StoreError when that is not a stream of so many bytes.
  std::string decompress(std::string_view compressed, size_t bytes, Dictionary *dictionary);

 private:
  std::unique_ptr<ZSTD_CCtx, FreeZstd> in_;
  std::unique_ptr<ZSTD_DCtx, FreeZstd> out_;
};

// Watches how well the streams of one kind are compressed, and makes a dictionary of them: at first as soon as there
// are some, then when they are compressed clearly worse than they were.
class Trainer {
 public:
  // What has been compressed to so many bytes.
  void take(std::string_view stream, size_t compressed);

  bool isDue() const;

  // Makes a dictionary that is better than the one in use, if it can. Not due again for a while.
  std::shared_ptr<Dictionary> train(Compressor &compressor, Dictionary *used);

  // From now on this one is in use.
  void use(Compressor &compressor, Dictionary &dictionary);

 private:
  struct Sum {
    size_t runs = 0, bytes = 0, compressed = 0;
    double ratio() const;
  };
  size_t judging() const;  // how many samples judge a new dictionary; the newer ones make it
  double ratioOfSamples(Compressor &compressor, Dictionary *dictionary) const;  // of those that judge

  std::deque<std::string> samples_;  // the latest
  size_t sampleBytes_ = 0;
  Sum latest_;              // of the streams since it was last looked
  double usual_ = 0;        // the ratio that is to be expected; 0: there is no dictionary yet
  size_t untilFirst_ = 32;  // streams before the first try
  bool isWorse_ = false;
};

}  // namespace kepfleet
