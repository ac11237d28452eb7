// compress.cpp: zstd, at a level that thousands of boards cost little of a processor; higher ones gain nothing here.

#define ZSTD_STATIC_LINKING_ONLY   // frames without a magic number
#define ZDICT_STATIC_LINKING_ONLY  // dictionaries of given content
#include "kep-fleet/compress.hpp"

#include <zdict.h>

#include <algorithm>
#include <new>
#include <vector>

#include "kep-fleet/store.hpp"

namespace kepfleet {

namespace {

constexpr int kLevel = 3;
constexpr size_t kSampleBytes = 32 << 10;    // of one stream
constexpr size_t kSamplesBytes = 128 << 10;  // of all of them
constexpr size_t kContentBytes = 32 << 10;   // of a dictionary: some whole streams
constexpr size_t kContentStreams = 4;
constexpr size_t kTablesBytes = 2 << 10;  // what a dictionary needs beside its content, and more
constexpr size_t kLook = 256;             // streams, after which it is looked how they fare
constexpr double kWorse = 1.2, kBetter = 0.9;
constexpr double kUnknown = 1e-9;  // a usual ratio: the first look finds it worse, and tries whether it can be helped

template <typename T>
T *made(T *thing) {
  if (thing == nullptr) throw std::bad_alloc();
  return thing;
}

}  // namespace

const ZSTD_CDict *Dictionary::toCompress() {
  if (!toCompress_) toCompress_.reset(made(ZSTD_createCDict(content_.data(), content_.size(), kLevel)));
  return toCompress_.get();
}

const ZSTD_DDict *Dictionary::toDecompress() {
  if (!toDecompress_) toDecompress_.reset(made(ZSTD_createDDict(content_.data(), content_.size())));
  return toDecompress_.get();
}

Compressor::Compressor() : in_(made(ZSTD_createCCtx())), out_(made(ZSTD_createDCtx())) {
  ZSTD_CCtx_setParameter(in_.get(), ZSTD_c_compressionLevel, kLevel);
  ZSTD_CCtx_setParameter(in_.get(), ZSTD_c_format, ZSTD_f_zstd1_magicless);
  ZSTD_CCtx_setParameter(in_.get(), ZSTD_c_contentSizeFlag, 0);
  ZSTD_CCtx_setParameter(in_.get(), ZSTD_c_dictIDFlag, 0);
  ZSTD_DCtx_setParameter(out_.get(), ZSTD_d_format, ZSTD_f_zstd1_magicless);
}

std::optional<std::string> Compressor::compress(std::string_view stream, Dictionary *dictionary) {
  if (stream.empty()) return std::nullopt;
  ZSTD_CCtx_reset(in_.get(), ZSTD_reset_session_only);  // one that found no room is not over
  ZSTD_CCtx_refCDict(in_.get(), dictionary ? dictionary->toCompress() : nullptr);
  std::string compressed(stream.size() - 1, '\0');  // where there is no room for it, it does not get smaller
  const size_t size = ZSTD_compress2(in_.get(), compressed.data(), compressed.size(), stream.data(), stream.size());
  if (ZSTD_isError(size)) return std::nullopt;
  compressed.resize(size);
  return compressed;
}

std::string Compressor::decompress(std::string_view compressed, size_t bytes, Dictionary *dictionary) {
  ZSTD_DCtx_refDDict(out_.get(), dictionary ? dictionary->toDecompress() : nullptr);
  std::string stream(bytes, '\0');
  const size_t size =
      ZSTD_decompressDCtx(out_.get(), stream.data(), stream.size(), compressed.data(), compressed.size());
  if (size != bytes) throw StoreError("A stored stream is damaged");
  return stream;
}

double Trainer::Sum::ratio() const { return bytes == 0 ? 0 : double(compressed) / double(bytes); }

void Trainer::take(std::string_view stream, size_t compressed) {
  samples_.emplace_back(stream.substr(0, kSampleBytes));
  sampleBytes_ += samples_.back().size();
  while (sampleBytes_ > kSamplesBytes) {
    sampleBytes_ -= samples_.front().size();
    samples_.pop_front();
  }
  latest_.runs += 1;
  latest_.bytes += stream.size();
  latest_.compressed += compressed;
  if (usual_ > 0 && latest_.runs >= kLook) {
    isWorse_ = latest_.ratio() > usual_ * kWorse;
    if (!isWorse_) latest_ = {};
  }
}

bool Trainer::isDue() const { return usual_ > 0 ? isWorse_ : latest_.runs >= untilFirst_; }

std::shared_ptr<Dictionary> Trainer::train(Compressor &compressor, Dictionary *used) {
  std::string content, all;
  std::vector<size_t> sizes;
  for (const std::string &sample : samples_) {
    if (sizes.size() >= judging()) content += sample;
    all += sample;
    sizes.push_back(sample.size());
  }
  ZDICT_params_t parameters{};
  parameters.compressionLevel = kLevel;
  std::string room(content.size() + kTablesBytes, '\0');
  const size_t size = ZDICT_finalizeDictionary(room.data(), room.size(), content.data(), content.size(), all.data(),
                                               sizes.data(), static_cast<unsigned>(sizes.size()), parameters);
  std::shared_ptr<Dictionary> dictionary;
  if (!ZDICT_isError(size)) {
    dictionary = std::make_shared<Dictionary>(room.substr(0, size));
    if (ratioOfSamples(compressor, dictionary.get()) > ratioOfSamples(compressor, used) * kBetter) dictionary.reset();
  }
  if (used != nullptr) usual_ = std::max(usual_, latest_.ratio());  // what cannot be helped is usual from now on
  if (usual_ > 0) latest_ = {};
  untilFirst_ *= 2;
  isWorse_ = false;
  return dictionary;
}

void Trainer::use(Compressor &compressor, Dictionary &dictionary) {
  const double ratio = ratioOfSamples(compressor, &dictionary);
  usual_ = ratio > 0 ? ratio : kUnknown;
  latest_ = {};
  isWorse_ = false;
}

size_t Trainer::judging() const {
  size_t left = samples_.size(), bytes = 0;
  while (left > 0 && samples_.size() - left < kContentStreams && bytes + samples_[left - 1].size() <= kContentBytes) {
    bytes += samples_[--left].size();
  }
  return left;
}

double Trainer::ratioOfSamples(Compressor &compressor, Dictionary *dictionary) const {
  Sum sum;
  for (size_t i = 0; i < judging(); ++i) {
    const auto compressed = compressor.compress(samples_[i], dictionary);
    sum.bytes += samples_[i].size();
    sum.compressed += compressed ? compressed->size() : samples_[i].size();
  }
  return sum.ratio();
}

}  // namespace kepfleet
