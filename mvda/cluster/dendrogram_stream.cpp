// DendroGramNode: the stream record "Dendro", version 1 (layout in dendrogram.h).
#include <mvda/cluster/dendrogram.h>
#include <mvda/platform/byte_io.h>
#include <mvda/platform/stream_directory.h>

#include <cstring>
#include <istream>
#include <ostream>

namespace DendroGram {
namespace {

std::uint32_t FloatBits(float value) {
  std::uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

float BitsFloat(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

}  // namespace

UStreamableData DendroGramNode::MyStreamableData("Dendro", 1);

bool DendroGramNode::Serialize(std::ostream& os) const {
  const std::uint8_t flag = is_leaf_ ? 1 : 0;
  WriteBytes(&flag, 1, os);
  WriteFourBytes(FloatBits(x_offset_), os);
  if (is_leaf_) {
    WriteFourBytes(static_cast<std::uint32_t>(items_.size()), os);
    if (!items_.empty()) WriteArray(items_.data(), items_.size(), 4, os);
  } else {
    WriteFourBytes(FloatBits(height_), os);
    WriteFourBytes(leaf_count_, os);
  }
  return WriteFourBytes(static_cast<std::int32_t>(model_), os);
}

bool DendroGramNode::DeSerialize(std::istream& is) {
  std::uint8_t flag = 2;
  std::uint32_t x_bits = 0;
  if (!ReadBytes(&flag, 1, is) || flag > 1 || !ReadFourBytes(x_bits, is)) return false;
  is_leaf_ = flag == 1;
  x_offset_ = BitsFloat(x_bits);
  height_ = -0.5f;
  leaf_count_ = 1;
  items_.clear();
  if (is_leaf_) {
    std::uint32_t count = 0;
    if (!ReadFourBytes(count, is) || !StreamHolds(is, count, 4)) return false;
    items_.resize(count);
    if (count > 0 && !ReadArray(items_.data(), count, 4, is)) return false;
  } else {
    std::uint32_t height_bits = 0;
    if (!ReadFourBytes(height_bits, is) || !ReadFourBytes(leaf_count_, is)) return false;
    height_ = BitsFloat(height_bits);
  }
  std::int32_t model = 0;
  if (!ReadFourBytes(model, is)) return false;
  model_ = model;
  return true;
}

bool DendroGramNode::UStreamableStartWrite(std::ostream& os) const {
  if (!MarkUStreamWritten(MyStreamableData)) return true;  // already written in this pass
  return MyStreamableData.Write(os) && DendroGramNode::UStreamableWriteBases(os) &&
         DendroGramNode::UStreamableWrite(os);
}

bool DendroGramNode::UStreamableWrite(std::ostream& os) const {
  OutputStreamDirectory dir(os, 1);
  std::ostream& out = dir.GetOutput(0);
  for (const DendroGramNode* node : PreOrder())
    if (!node->Serialize(out)) break;
  return dir.Close();
}

bool DendroGramNode::UStreamableStartRead(std::istream& is) {
  if (!MarkUStreamRead(MyStreamableData)) return true;  // already read in this pass
  std::int32_t version = 0;
  const bool ok = MyStreamableData.Check(is, &version) &&
                  DendroGramNode::UStreamableReadBases(is) && version == 1 &&
                  DendroGramNode::UStreamableRead(is);
  if (!ok) MakeEmptyLeaf();
  return ok;
}

bool DendroGramNode::UStreamableRead(std::istream& is) {
  MakeEmptyLeaf();
  InputStreamDirectory dir(is);
  std::istream* in = dir.GetInput(0);
  if (!in || !DeSerialize(*in)) {
    MakeEmptyLeaf();
    return false;
  }
  // Pre-order rebuild: `open` holds the inner nodes whose children are still being read, the
  // innermost last. A node is allocated only after its flag byte has arrived, so a stream cannot
  // make the reader allocate more nodes than it holds records.
  std::vector<DendroGramNode*> open;
  if (!is_leaf_) open.push_back(this);
  bool ok = true;
  while (ok && !open.empty()) {
    DendroGramNode* parent = open.back();
    if (in->peek() == std::char_traits<char>::eof()) {
      ok = false;
      break;
    }
    auto* child = new DendroGramNode();
    child->parent_ = parent;
    (parent->left_ ? parent->right_ : parent->left_) = child;
    if (!child->DeSerialize(*in)) {
      ok = false;
      break;
    }
    if (!child->is_leaf_) {
      open.push_back(child);
      continue;
    }
    // A finished right child finishes its parent, and so on up: check each one's leaf count.
    while (!open.empty() && open.back()->right_) {
      DendroGramNode* done = open.back();
      const std::uint64_t below =
          std::uint64_t(done->left_->SizeLeafs()) + std::uint64_t(done->right_->SizeLeafs());
      if (below != done->leaf_count_) {
        ok = false;
        break;
      }
      open.pop_back();
    }
  }
  // Bytes after the last node are ignored, like entries that a later version may add.
  if (!ok || !dir.Close()) {
    MakeEmptyLeaf();
    return false;
  }
  return true;
}

bool DendroGramNode::UStreamableWriteBases(std::ostream& os) const {
  return UStreamBase::UStreamableStartWrite(os);
}

bool DendroGramNode::UStreamableReadBases(std::istream& is) {
  return UStreamBase::UStreamableStartRead(is);
}

void DendroGramNode::UStreamableReset() const { UStreamBase::UStreamableReset(); }

}  // namespace DendroGram
