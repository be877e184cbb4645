#include <mvda/cluster/detail/distance_list.h>
#include <mvda/cluster/detail/ward_list.h>

#include <algorithm>
#include <atomic>

namespace mvda::detail {
namespace {

std::atomic<bool> use_straightforward{false};

}  // namespace

WardLazyList::~WardLazyList() = default;

std::unique_ptr<WardLazyList> MakeWardLazyList() {
  if (use_straightforward.load()) return std::make_unique<StraightforwardWardList>();
  return std::make_unique<WardMergeQueue>();
}

void UseStraightforwardWardList(bool on) { use_straightforward.store(on); }

// ---------------------------------------------------------------------------------------------
// StraightforwardWardList

std::unique_ptr<WardLazyList> StraightforwardWardList::Clone() const {
  return std::make_unique<StraightforwardWardList>(*this);
}

void StraightforwardWardList::Reset(int n, DistanceList list, int team, BinCounts) {
  team_ = std::max(team, 1);
  list_.assign(list.begin(), list.end());
  SortForPopping(list_.data(), list_.data() + list_.size(), team_);
  slot_.resize(n);
  for (int p = 0; p < n; ++p) slot_[p] = p + 1;
}

bool StraightforwardWardList::Next(const WardRecompute& distance, WardMerge& merge) {
  if (list_.empty()) return false;
  if (list_.back().distance < 0.0f) {
    std::size_t tail = list_.size();
    while (tail > 0 && list_[tail - 1].distance < 0.0f) {
      DistanceAndIndex& e = list_[--tail];
      e.distance = distance(slot_[e.first - 1], slot_[e.second - 1]);
    }
    InsertRecomputedTail(list_, tail);
  }
  const DistanceAndIndex taken = list_.back();
  const int a = taken.first - 1, b = taken.second - 1;
  list_.pop_back();
  CompactAfterMerge(list_, a + 1, b + 1, team_);
  merge = {taken.distance, slot_[a], slot_[b], a, b};
  slot_.erase(slot_.begin() + b);
  return true;
}

// ---------------------------------------------------------------------------------------------
// WardMergeQueue

std::unique_ptr<WardLazyList> WardMergeQueue::Clone() const {
  return std::make_unique<WardMergeQueue>(*this);
}

void WardMergeQueue::Reset(int n, DistanceList list, int team, BinCounts counts) {
  n_ = n;
  step_ = 0;
  label_.resize(n + 1);
  label_[0] = -1;
  for (int s = 1; s <= n; ++s) label_[s] = s;
  changed_.assign(n + 1, 0);
  ranks_.Reset(n);
  originals_.Reset(std::move(list), team, std::move(counts));
  opened_.clear();
  index_.clear();
  opened_bottom_ = 0;
  recomputed_set_.Clear();
  items_.clear();
  free_items_ = frontier_ = bottom_ = kNone;
}

std::uint32_t WardMergeQueue::NewItem(std::int32_t a, std::int32_t b, std::uint32_t next,
                                      std::uint32_t sub) {
  if (free_items_ != kNone) {
    const std::uint32_t k = free_items_;
    free_items_ = items_[k].next;
    items_[k] = {a, b, next, sub};
    return k;
  }
  items_.push_back({a, b, next, sub});
  return static_cast<std::uint32_t>(items_.size() - 1);
}

std::uint32_t WardMergeQueue::Join(std::uint32_t group, std::uint32_t other) {
  if (group == kNone) return other;
  if (other == kNone) return group;
  return NewItem(0, 0, group, other);
}

void WardMergeQueue::Drain(std::uint32_t group, std::vector<DistanceAndIndex>& out) {
  std::vector<std::uint32_t> pending;
  if (group != kNone) pending.push_back(group);
  while (!pending.empty()) {
    std::uint32_t k = pending.back();
    pending.pop_back();
    while (k != kNone) {
      const Item item = items_[k];
      items_[k].next = free_items_;
      free_items_ = k;
      if (item.sub != kNone) pending.push_back(item.sub);
      // Stale stays stale: only a drop since can have changed.
      if (item.a > 0 && StateOf(item.a, item.b, 0) != kDropped)
        out.push_back({0.0f, item.a, item.b});
      k = item.next;
    }
  }
}

std::size_t WardMergeQueue::Up(std::size_t index) {
  std::size_t root = index;
  while (root < opened_.size() && (opened_[root].aux & kRemoved))
    root = opened_[root].aux & ~kRemoved;
  while (index < root) {
    const std::size_t next = opened_[index].aux & ~kRemoved;
    opened_[index].aux = kRemoved | static_cast<std::uint32_t>(root);
    index = next;
  }
  return root;
}

void WardMergeQueue::Compact() {
  opened_bottom_ = Up(opened_bottom_);
  if (opened_bottom_ < 4096 || 2 * opened_bottom_ < opened_.size()) return;
  const std::size_t shift = opened_bottom_;
  opened_.erase(opened_.begin(), opened_.begin() + static_cast<std::ptrdiff_t>(shift));
  for (Opened& x : opened_)
    if (x.aux & kRemoved)
      x.aux = kRemoved | ((x.aux & ~kRemoved) - static_cast<std::uint32_t>(shift));
  opened_bottom_ = 0;
  index_.clear();
  for (std::size_t k = 0; k < opened_.size(); k += kIndexStride) index_.push_back(opened_[k].entry);
}

std::size_t WardMergeQueue::UpperBoundOpened(const Key& key) const {
  // The block whose first key is the last one not after `key`, then within it.
  const auto block = std::upper_bound(
      index_.begin(), index_.end(), key,
      [](const Key& k, const DistanceAndIndex& first) { return Before(k, KeyOf(first)); });
  if (block == index_.begin()) return 0;
  const std::size_t from = static_cast<std::size_t>(block - index_.begin() - 1) * kIndexStride;
  const std::size_t to = std::min(from + kIndexStride, opened_.size());
  return static_cast<std::size_t>(
      std::upper_bound(opened_.begin() + static_cast<std::ptrdiff_t>(from),
                       opened_.begin() + static_cast<std::ptrdiff_t>(to), key,
                       [](const Key& k, const Opened& x) { return Before(k, KeyOf(x.entry)); }) -
      opened_.begin());
}

bool WardMergeQueue::Open(const DistanceAndIndex& e) {
  const State state = StateOf(e.first, e.second, 0);
  if (state == kDropped) return false;
  if (state == kStale) {
    frontier_ = NewItem(e.first, e.second, frontier_, kNone);
    return false;
  }
  if (opened_.size() % kIndexStride == 0) index_.push_back(e);
  opened_.push_back({e, frontier_});
  frontier_ = kNone;
  return true;
}

WardMergeQueue::Recomputed::Position WardMergeQueue::Recomputed::UpperBound(const Key& key) const {
  const std::size_t block = static_cast<std::size_t>(
      std::upper_bound(last_.begin(), last_.end(), key, KeyBefore()) - last_.begin());
  if (block == blocks_.size()) return {block, 0};
  const std::vector<RecomputedEntry>& b = blocks_[block];
  const auto at =
      std::upper_bound(b.begin(), b.end(), key,
                       [](const Key& k, const RecomputedEntry& x) { return Before(k, x.key); });
  return {block, static_cast<std::size_t>(at - b.begin())};
}

WardMergeQueue::Recomputed::Position WardMergeQueue::Recomputed::Erase(Position p) {
  std::vector<RecomputedEntry>& b = blocks_[p.block];
  b.erase(b.begin() + static_cast<std::ptrdiff_t>(p.index));
  if (b.empty()) {
    blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(p.block));
    last_.erase(last_.begin() + static_cast<std::ptrdiff_t>(p.block));
    return {p.block, 0};
  }
  last_[p.block] = b.back().key;
  if (p.index == b.size()) return {p.block + 1, 0};
  return p;
}

void WardMergeQueue::Recomputed::Insert(const RecomputedEntry& entry) {
  if (blocks_.empty()) {
    blocks_.push_back({entry});
    last_.push_back(entry.key);
    return;
  }
  // The first block whose last key is after the entry's, or the last block.
  std::size_t block = static_cast<std::size_t>(
      std::upper_bound(last_.begin(), last_.end(), entry.key, KeyBefore()) - last_.begin());
  if (block == blocks_.size()) --block;
  std::vector<RecomputedEntry>& b = blocks_[block];
  b.insert(
      std::upper_bound(b.begin(), b.end(), entry.key,
                       [](const Key& k, const RecomputedEntry& x) { return Before(k, x.key); }),
      entry);
  last_[block] = b.back().key;
  if (b.size() < 2 * kBlock) return;
  std::vector<RecomputedEntry> upper(b.begin() + kBlock, b.end());
  b.resize(kBlock);
  last_[block] = b.back().key;
  blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(block) + 1, std::move(upper));
  last_.insert(last_.begin() + static_cast<std::ptrdiff_t>(block) + 1,
               blocks_[block + 1].back().key);
}

WardMergeQueue::Found WardMergeQueue::FirstCurrent(const Key* above, std::uint32_t& gathered) {
  std::size_t o = opened_bottom_;
  Recomputed::Position it = recomputed_set_.Begin();
  if (above) {
    // Initial entries that sort before the place are passed by it: opened first, so that the walk
    // starts among everything in front of that place.
    while (const DistanceAndIndex* u = originals_.Peek(label_)) {
      if (!Before(KeyOf(*u), *above)) break;
      const DistanceAndIndex e = *u;
      originals_.Pop();
      Open(e);
    }
    o = std::max(opened_bottom_, UpperBoundOpened(*above));
    it = recomputed_set_.UpperBound(*above);
  }
  o = Up(o);
  for (;;) {
    const bool has_opened = o < opened_.size(), has_recomputed = !recomputed_set_.AtEnd(it);
    if (!has_opened && !has_recomputed) break;
    if (has_opened &&
        (!has_recomputed || Before(KeyOf(opened_[o].entry), recomputed_set_.At(it).key))) {
      Opened& x = opened_[o];
      const State state = StateOf(x.entry.first, x.entry.second, 0);
      if (state == kCurrent) {
        x.aux = Join(x.aux, gathered);
        gathered = kNone;
        if (!above) opened_bottom_ = o;
        return {1, o, it};
      }
      gathered = state == kStale ? NewItem(x.entry.first, x.entry.second, gathered, x.aux)
                                 : Join(gathered, x.aux);
      x.aux = kRemoved | static_cast<std::uint32_t>(o + 1);
      o = Up(o + 1);
    } else {
      RecomputedEntry& x = recomputed_set_.At(it);
      const State state = StateOf(x.key.a, x.key.b, x.key.created);
      if (state == kCurrent) {
        x.group = Join(x.group, gathered);
        gathered = kNone;
        if (!above) opened_bottom_ = o;
        return {2, 0, it};
      }
      gathered =
          state == kStale ? NewItem(x.key.a, x.key.b, gathered, x.group) : Join(gathered, x.group);
      it = recomputed_set_.Erase(it);
    }
  }
  if (!above) opened_bottom_ = o;
  // Past everything opened: the next current initial entry is the one in front.
  while (const DistanceAndIndex* u = originals_.Peek(label_)) {
    const DistanceAndIndex e = *u;
    originals_.Pop();
    if (Open(e)) {
      Opened& x = opened_.back();
      x.aux = Join(x.aux, gathered);
      gathered = kNone;
      return {1, opened_.size() - 1, it};
    }
  }
  return {0, 0, it};
}

void WardMergeQueue::Insert(const Key& key) {
  std::uint32_t gathered = kNone;
  const Found place = FirstCurrent(&key, gathered);
  std::uint32_t group;
  if (place.kind != 0) {
    std::uint32_t& owner = GroupOf(place);
    group = owner;
    owner = kNone;
  } else {
    // Nothing current in front: the entry goes to the front, everything is behind it.
    group = Join(gathered, frontier_);
    frontier_ = kNone;
  }
  recomputed_set_.Insert(RecomputedEntry{key, group});
}

bool WardMergeQueue::Next(const WardRecompute& distance, WardMerge& merge) {
  if (static_cast<int>(step_) + 1 >= n_) return false;
  Compact();
  const std::uint32_t k = step_ + 1;
  std::uint32_t gathered = bottom_;
  bottom_ = kNone;
  Found back = FirstCurrent(nullptr, gathered);
  std::uint32_t tail;
  if (back.kind != 0) {
    std::uint32_t& owner = GroupOf(back);
    tail = owner;
    owner = kNone;
  } else {
    tail = Join(gathered, frontier_);
    frontier_ = kNone;
  }
  tail_.clear();
  Drain(tail, tail_);
  if (!tail_.empty()) {
    std::vector<Key> batch;
    batch.reserve(tail_.size());
    for (const DistanceAndIndex& e : tail_)
      batch.push_back({distance(e.first, e.second), 2 * k, e.first, e.second});
    // The smallest first: each goes behind the entries in front of its place, and the ones placed
    // before it lie behind it.
    std::sort(batch.begin(), batch.end(), KeyBefore());
    for (const Key& key : batch) Insert(key);
    gathered = kNone;
    back = FirstCurrent(nullptr, gathered);
    // Nothing stale can be behind the new back entry: everything behind the old one was just
    // recomputed and went in front of it or is the new one.
    bottom_ = gathered;
  }
  if (back.kind == 0) return false;

  Key taken;
  std::uint32_t left;
  if (back.kind == 1) {
    Opened& x = opened_[back.index];
    taken = KeyOf(x.entry);
    left = x.aux;
    x.aux = kRemoved | static_cast<std::uint32_t>(back.index + 1);
  } else {
    taken = recomputed_set_.At(back.at).key;
    left = recomputed_set_.At(back.at).group;
    recomputed_set_.Erase(back.at);
  }
  bottom_ = Join(bottom_, left);
  step_ = k;
  merge = {taken.distance, taken.a, taken.b, ranks_.Rank(taken.a), ranks_.Rank(taken.b)};
  ranks_.Remove(taken.b);
  label_[taken.b] = -1;
  changed_[taken.a] = 2 * k + 1;
  return true;
}

}  // namespace mvda::detail
