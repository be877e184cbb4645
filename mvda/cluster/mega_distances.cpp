#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/mega_distances.h>
#include <mvda/containers/detail/parallel_for.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/error.h>
#include <mvda/platform/progress.h>
#include <mvda/platform/sta.h>
#include <mvda/platform/temp_file.h>

#include <algorithm>
#include <filesystem>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>

namespace DendroGram {
namespace {

using mvda::detail::PopsBefore;

constexpr std::int32_t kTop = std::numeric_limits<std::int32_t>::max();
constexpr float kNone = -std::numeric_limits<float>::infinity();

const char kReadError[] = "Error when reading from temporary file.";
const char kBandError[] = "Internal error in MegaDistances::LoadNextSegment.";

// The largest float not above x: a float distance lies at or below x exactly when it lies at or
// below this.
float FloorToFloat(double x) {
  float f = static_cast<float>(x);
  if (static_cast<double>(f) > x) f = std::nextafter(f, kNone);
  return f;
}

bool WriteRecords(const DistanceAndIndex* records, std::size_t count, std::ostream& os) {
  return WriteArray(records, 3 * count, 4, os);
}

bool ReadRecords(DistanceAndIndex* records, std::size_t count, std::istream& is) {
  return ReadArray(records, 3 * count, 4, is);
}

std::istream& Rewind(MegaDistances::TempFile& file) {
  std::fstream& stream = file.file->Stream();
  stream.clear();
  stream.seekg(0);
  if (!stream) throw NCError(kReadError);
  return stream;
}

// The folder, and what the spill needs there: the distances are written once and then split
// into bands, so two copies of 12 bytes a distance are on the disk at the peak.
[[noreturn]] void ThrowWriteError(const MegaDistances::TempFile& file, std::uint64_t distances) {
  const std::filesystem::path path = file.file->GetPath();
  throw NCError("Cluster analysis: no room for the distances in the temporary folder " +
                path.parent_path().string() + " (writing " + path.filename().string() +
                " failed; the spill needs about " + std::to_string(2 * 12 * distances) +
                " bytes there; is the disk full or the folder read-only?)");
}

void Flush(const MegaDistances::TempFile& file, std::uint64_t distances) {
  if (!file.file->Stream().flush()) ThrowWriteError(file, distances);
}

MegaDistances::TempFile NewFile() {
  MegaDistances::TempFile file;
  file.file = std::make_shared<TwTempFile>("ncd-", "clu");
  file.largest = kNone;
  return file;
}

}  // namespace

MegaDistances::MegaDistances(std::vector<DistanceAndIndex> segment, NCProgress* progress,
                             std::uint32_t total)
    : segment_(std::move(segment)),
      capacity_(segment_.capacity()),
      progress_(progress),
      total_(total) {
  if (capacity_ < 2)
    throw NCError("MegaDistances: a segment of " + std::to_string(capacity_) +
                  " records is too small (2 at least)");
  segment_.clear();
  files_.push_back(NewFile());
  if (progress_) {
    progress_->SetRange(0, 1);
    char text[64];
    std::snprintf(text, sizeof text, "Calculating and saving %u distances", total_);
    progress_->SetText(text);
  }
}

MegaDistances::~MegaDistances() = default;

void MegaDistances::SaveDistances(const Producer& produce) {
  TempFile& file = files_.front();
  std::fstream& os = file.file->Stream();
  for (std::uint64_t first = 0; first < total_;) {
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>(capacity_, total_ - first));
    segment_.resize(count);
    produce(first, count, segment_.data());
    if (!WriteRecords(segment_.data(), count, os)) ThrowWriteError(file, total_);
    for (const DistanceAndIndex& record : segment_) {
      file.largest = std::max(file.largest, record.distance);
      ++file.count;
      sum_of_squares_ += static_cast<double>(record.distance) * record.distance;
      ++saved_;
      if (progress_) {
        if (saved_ % 10000 == 0) progress_->SetValue(static_cast<double>(saved_) / total_);
        if (progress_->IsBreakPressed())
          throw NCError("Cluster analysis aborted", NCError::kUserStop);
      }
    }
    first += count;
  }
  segment_.clear();
  Flush(file, total_);
  file.upper = {file.largest, kTop, kTop};
}

void MegaDistances::SplitIntoBands() {
  if (progress_) {
    progress_->SetRange(0, 1);
    progress_->SetText("Splitting distances");
  }
  const TempFile source = files_.front();
  files_.clear();
  const std::uint64_t saved = source.count;
  if (saved == 0) return;
  // floor(2R/S + 1) bands, each expected to fill half a segment; a band that overflows is cut
  // again when its turn comes, so the cap only costs time in extreme cases.
  const double wanted = std::floor(2.0 * static_cast<double>(saved) / capacity_ + 1.0);
  const int bands = static_cast<int>(std::min<double>(wanted, kMaxBands));
  const double rms = std::sqrt(sum_of_squares_ / static_cast<double>(saved));
  std::vector<DistanceAndIndex> limits;
  for (int b = 1; b < bands; ++b) {
    const double limit = Sta::GetStudentsT(static_cast<double>(b) / bands, 10000.0, false) * rms;
    if (!(limit < source.largest)) break;
    // Quantiles below the median give negative limits: those bands would stay empty.
    if (limit < 0.0) continue;
    const float key = FloorToFloat(limit);
    if (!limits.empty() && key <= limits.back().distance) continue;
    limits.push_back({key, kTop, kTop});
  }
  limits.push_back(source.upper);
  files_ = Distribute(source, limits, true);
}

std::list<MegaDistances::TempFile> MegaDistances::Distribute(
    const TempFile& source, const std::vector<DistanceAndIndex>& limits, bool report) {
  std::vector<TempFile> bands(limits.size());
  // Records reach their band files through buffers written a block at a time (one small write a
  // record was what splitting spent its time on). The buffers live in the segment beside the
  // records being read, so that the store never needs more memory than its segment: the segment
  // was sized to what the allocator could give, and a second allocation beside it is what fails
  // first when memory is short. Only a segment too small to give every band one record borrows a
  // few kilobytes of its own.
  const std::size_t band_count = limits.size();
  std::size_t buffered = std::max<std::size_t>(1, capacity_ / 2 / band_count);
  std::size_t chunk = capacity_ > buffered * band_count ? capacity_ - buffered * band_count : 0;
  std::vector<DistanceAndIndex> spare;
  DistanceAndIndex* buffers = nullptr;
  segment_.resize(capacity_);  // within the capacity: no allocation
  if (chunk >= 1) {
    buffers = segment_.data() + chunk;
  } else {
    buffered = 1;
    chunk = capacity_;
    spare.resize(band_count);
    buffers = spare.data();
  }
  std::vector<std::size_t> pending(band_count, 0);  // records waiting in each band's buffer
  const auto write = [&](std::size_t b) {
    if (!WriteRecords(buffers + b * buffered, pending[b], bands[b].file->Stream()))
      ThrowWriteError(bands[b], total_);
    pending[b] = 0;
  };
  TempFile reading = source;
  std::istream& is = Rewind(reading);
  for (std::uint64_t done = 0; done < source.count;) {
    const std::size_t count =
        static_cast<std::size_t>(std::min<std::uint64_t>(chunk, source.count - done));
    if (!ReadRecords(segment_.data(), count, is)) throw NCError(kReadError);
    for (std::size_t k = 0; k < count; ++k) {
      const DistanceAndIndex record = segment_[k];
      // The first band whose upper key is not below the record's.
      const auto at = std::lower_bound(
          limits.begin(), limits.end(), record,
          [](const DistanceAndIndex& a, const DistanceAndIndex& b) { return PopsBefore(a, b); });
      if (at == limits.end()) throw NCError(kBandError);
      const std::size_t b = static_cast<std::size_t>(at - limits.begin());
      TempFile& band = bands[b];
      if (!band.file) {
        band = NewFile();
        band.upper = *at;
      }
      buffers[b * buffered + pending[b]++] = record;
      if (pending[b] >= buffered) write(b);
      band.largest = std::max(band.largest, record.distance);
      ++band.count;
    }
    done += count;
    if (report && progress_) {
      progress_->SetValue(static_cast<double>(done) / source.count);
      if (progress_->IsBreakPressed())
        throw NCError("Cluster analysis aborted.", NCError::kUserStop);
    }
  }
  for (std::size_t b = 0; b < bands.size(); ++b)
    if (pending[b] > 0) write(b);
  segment_.clear();
  std::list<TempFile> filled;
  for (TempFile& band : bands) {
    if (!band.file) continue;
    Flush(band, total_);
    filled.push_back(std::move(band));
  }
  return filled;
}

bool MegaDistances::Pop(DistanceAndIndex& record) {
  if (segment_.empty() && !LoadNextSegment()) return false;
  record = segment_.back();
  segment_.pop_back();
  return true;
}

bool MegaDistances::LoadNextSegment() {
  while (!files_.empty()) {
    TempFile& band = files_.front();
    if (band.count > capacity_) {
      Repartition();
      continue;
    }
    if (progress_) progress_->SetText("Loading distances");
    const std::size_t count = static_cast<std::size_t>(band.count);
    segment_.resize(count);
    std::istream& is = Rewind(band);
    if (count > 0 && !ReadRecords(segment_.data(), count, is)) throw NCError(kReadError);
    // Every record must lie in the band's own range of keys, above everything handed out before.
    for (const DistanceAndIndex& record : segment_)
      if ((any_loaded_ && !PopsBefore(loaded_upper_, record)) || PopsBefore(band.upper, record) ||
          record.first < 1 || record.second <= record.first)
        throw NCError(kBandError);
    mvda::detail::SortForPopping(segment_.data(), segment_.data() + segment_.size(),
                                 mvda::detail::TeamSize());
    loaded_upper_ = band.upper;
    any_loaded_ = true;
    files_.pop_front();  // the last user of the file removes it
    if (progress_) progress_->SetText("Merging clusters");
    if (!segment_.empty()) return true;
  }
  return false;
}

void MegaDistances::Repartition() {
  ++repartitions_;
  if (progress_) progress_->SetText("Re-partitioning");
  TempFile source = files_.front();
  files_.pop_front();
  const std::uint64_t records = source.count;
  const std::uint64_t size = capacity_;
  // A sample of one segment, spread evenly over the band: record t is taken when t * S / C
  // reaches a new integer, which happens exactly S times.
  segment_.clear();
  std::istream& is = Rewind(source);
  for (std::uint64_t t = 0; t < records; ++t) {
    DistanceAndIndex record;
    if (!ReadRecords(&record, 1, is)) throw NCError(kReadError);
    if ((t + 1) * size / records != t * size / records) segment_.push_back(record);
  }
  std::sort(segment_.begin(), segment_.end(),
            [](const DistanceAndIndex& a, const DistanceAndIndex& b) { return PopsBefore(a, b); });
  // Limits at evenly spaced sample keys, all below the sample's largest. Keys are distinct, so
  // each piece holds its own limit's record (the last piece the sample's largest) and is smaller
  // than the band: cutting again always makes progress, even for a band of equal distances.
  const std::size_t sampled = segment_.size();
  const double wanted = std::floor(2.0 * static_cast<double>(records) / size + 1.0);
  const std::size_t pieces = static_cast<std::size_t>(
      std::min<double>({wanted, double(kMaxBands), static_cast<double>(sampled)}));
  if (pieces < 2) throw NCError(kBandError);
  std::vector<DistanceAndIndex> limits;
  for (std::size_t k = 1; k < pieces; ++k) limits.push_back(segment_[k * sampled / pieces - 1]);
  limits.push_back(source.upper);
  segment_.clear();
  files_.splice(files_.begin(), Distribute(source, limits, false));
}

}  // namespace DendroGram
