// DendroGram::MegaDistances: the disk store of a distance list too large for memory, in temporary
// files cut into bands of increasing distance, handed out one band at a time in merge order.
#ifndef MVDA_CLUSTER_MEGA_DISTANCES_H_
#define MVDA_CLUSTER_MEGA_DISTANCES_H_

#include <mvda/cluster/distance_calculators.h>
#include <mvda/mvda_export.h>

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <vector>

class NCProgress;
class TwTempFile;

namespace DendroGram {

// Use: construct with a segment (an empty vector whose capacity is the most records the store may
// hold in memory), SaveDistances once, then Pop until it returns false. Records come out in the
// order of a list sorted by decreasing distance and popped from the back: increasing distance, and
// among equal distances increasing first, then second row, the same order as the in-memory list,
// so both give the same tree.
//
// Saving writes every record to one temporary file. The records are then split into bands by
// distance: with R records and a segment of S, B = floor(2R/S + 1) bands (each expected to fill
// half a segment; at most kMaxBands, so that the band files stay few enough to be open at once),
// with upper limits at Student t quantiles (probability b/B, 10000 degrees of freedom) times the
// root mean square distance, since distances of many variables are close to normally spread; a
// distance equal to a limit goes to the lower band. A band found larger than the segment when its
// turn comes is cut again, at keys sampled evenly from its own records, until each piece fits.
//
// Every file is a TwTempFile ("ncd-*.clu" in the system temporary directory), removed when the
// last store that uses it lets it go, also when an exception unwinds. Progress and breaks are
// handled on the calling thread.
class MVDA_EXPORT MegaDistances {
 public:
  static constexpr int kMaxBands = 256;

  // One file of records: the file, the largest distance written to it, the number of records, and
  // the largest key a record in it may have (all records of earlier files have smaller keys).
  struct TempFile {
    std::shared_ptr<TwTempFile> file;
    float largest = 0.0f;
    std::uint64_t count = 0;
    DistanceAndIndex upper{0.0f, 0, 0};
  };

  // Fills out[0 .. count-1] with the records numbered first .. first+count-1 (0-based, in the order
  // of the in-memory list before sorting).
  using Producer =
      std::function<void(std::uint64_t first, std::uint64_t count, DistanceAndIndex* out)>;

  // Creates the first temporary file; sets the progress range 0..1 and the text "Calculating and
  // saving <total> distances". Throws NCError when the segment holds fewer than 2 records or the
  // file cannot be created.
  MegaDistances(std::vector<DistanceAndIndex> segment, NCProgress* progress, std::uint32_t total);
  MegaDistances(const MegaDistances&) = default;
  MegaDistances& operator=(const MegaDistances&) = default;
  ~MegaDistances();

  // Writes all `total` records, produced a segment at a time, to the first file; progress goes
  // from 0 to 1 every 10000 records. A break throws NCError "Cluster analysis aborted" (this one
  // text has no full stop).
  void SaveDistances(const Producer& produce);
  // Splits the saved records into band files ("Splitting distances", range 0..1). A break throws
  // NCError "Cluster analysis aborted.".
  void SplitIntoBands();
  // The next record in merge order; false when none is left.
  bool Pop(DistanceAndIndex& record);

  std::uint64_t SizeSaved() const { return saved_; }
  std::size_t SegmentCapacity() const { return capacity_; }
  // The band files still to be loaded, in increasing order.
  const std::list<TempFile>& GetFiles() const { return files_; }
  // How many times a band was cut again because it did not fit the segment.
  int GetRepartitionCount() const { return repartitions_; }

 private:
  // Loads the next band into the segment; false when no band is left.
  bool LoadNextSegment();
  // Replaces the first band by smaller bands.
  void Repartition();
  // Distributes the records of `source` into new band files with the given increasing upper keys
  // (the last one at least the largest key in the source) and returns the files that received
  // records, in order. With `report`, sets the progress value and honours a break.
  std::list<TempFile> Distribute(const TempFile& source,
                                 const std::vector<DistanceAndIndex>& limits, bool report);

  std::list<TempFile> files_;
  std::vector<DistanceAndIndex> segment_;
  std::size_t capacity_;
  NCProgress* progress_;
  std::uint32_t total_;
  std::uint64_t saved_ = 0;
  double sum_of_squares_ = 0.0;
  // The upper key of the band loaded last: every record loaded later must lie above it.
  DistanceAndIndex loaded_upper_{0.0f, 0, 0};
  bool any_loaded_ = false;
  int repartitions_ = 0;
};

}  // namespace DendroGram

#endif  // MVDA_CLUSTER_MEGA_DISTANCES_H_
