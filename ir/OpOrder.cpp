#include "ir/OpOrder.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>
#include <utility>
#include "ir/IrOp.h"

namespace netforge {

namespace {

// A chunk is split when it would grow beyond kChunkMax. Chunks that come about by appending are left with
// room for later insertions, so that the first edits all over a freshly built graph don't split every chunk.
constexpr std::size_t kChunkMax = 192;
constexpr std::size_t kChunkFill = 128;
constexpr std::size_t kBlockMax = 64;
constexpr std::size_t kBlockFill = 48;

// Types beyond the 63rd share a bit.
std::uint64_t typeBit(std::uint32_t type) {
  return std::uint64_t{1} << std::min(type, 63u);
}

}  // namespace

struct OpOrder::Chunk {
  Block* block = nullptr;
  std::vector<OpPtr> ops;
  std::vector<std::uint32_t> types;  // of the ops
};

struct OpOrder::Block {
  std::size_t position = 0;  // in blocks_
  std::vector<std::unique_ptr<Chunk>> chunks;
  std::vector<std::uint32_t> sizes;      // of the chunks
  std::vector<std::uint64_t> typeMasks;  // every type in the chunk has its bit set; stale bits may remain

  std::size_t find(const Chunk& chunk) const {
    std::size_t i = 0;
    while (chunks[i].get() != &chunk) ++i;
    return i;
  }
};

OpOrder::OpOrder() = default;

OpOrder::~OpOrder() {
  for (const auto& block : blocks_) {
    for (const auto& chunk : block->chunks) {
      for (const OpPtr& op : chunk->ops) forget(*op);
    }
  }
}

OpOrder::Chunk* OpOrder::chunkOf(const ops::IrOp* op) const {
  if (op == nullptr) return nullptr;
  if (op->orderOwner == this) return static_cast<Chunk*>(op->orderChunk);
  if (foreign_.empty()) return nullptr;
  const auto found = foreign_.find(op);
  return found == foreign_.end() ? nullptr : found->second;
}

void OpOrder::setChunk(ops::IrOp& op, Chunk* chunk) {
  if (op.orderOwner == this) {
    op.orderChunk = chunk;
    return;
  }
  const auto found = foreign_.empty() ? foreign_.end() : foreign_.find(&op);
  if (found != foreign_.end()) {
    found->second = chunk;
  } else if (op.orderOwner == nullptr) {
    op.orderOwner = this;
    op.orderChunk = chunk;
  } else {
    foreign_.emplace(&op, chunk);
  }
}

void OpOrder::forget(ops::IrOp& op) {
  if (op.orderOwner == this) {
    op.orderOwner = nullptr;
    op.orderChunk = nullptr;
  } else {
    foreign_.erase(&op);
  }
}

bool OpOrder::contains(const ops::IrOp* op) const {
  return chunkOf(op) != nullptr;
}

OpOrder::Place OpOrder::placeOf(const ops::IrOp* op) const {
  Chunk* chunk = chunkOf(op);
  if (chunk == nullptr) return Place{nullptr, 0};
  std::uint32_t offset = 0;
  while (chunk->ops[offset].get() != op) ++offset;
  return Place{chunk, offset};
}

OpOrder::Place OpOrder::placeAt(std::uint32_t index) const {
  std::size_t b = 0;
  while (index >= blockSizes_[b]) index -= blockSizes_[b++];
  const Block& block = *blocks_[b];
  std::size_t c = 0;
  while (index >= block.sizes[c]) index -= block.sizes[c++];
  return Place{block.chunks[c].get(), index};
}

std::uint32_t OpOrder::indexOf(const Place& place) const {
  const Block& block = *place.chunk->block;
  const auto blocksBefore = blockSizes_.begin() + static_cast<std::ptrdiff_t>(block.position);
  const auto chunksBefore = block.sizes.begin() + static_cast<std::ptrdiff_t>(block.find(*place.chunk));
  return std::accumulate(block.sizes.begin(), chunksBefore,
                         std::accumulate(blockSizes_.begin(), blocksBefore, place.offset));
}

std::uint32_t OpOrder::indexOf(const ops::IrOp* op) const {
  const Place place = placeOf(op);
  return place.chunk == nullptr ? size_ : indexOf(place);
}

const OpOrder::OpPtr& OpOrder::at(std::uint32_t index) const {
  if (index < vector_.size()) return vector_[index];
  const Place place = placeAt(index);
  return place.chunk->ops[place.offset];
}

void OpOrder::requireNew(const OpPtr& op) const {
  if (op == nullptr || contains(op.get())) {
    throw std::logic_error("netforge::OpOrder: null op, or one that is already in the order");
  }
}

void OpOrder::insert(std::uint32_t index, const OpPtr& op) {
  requireNew(op);
  if (index > size_) throw std::logic_error("netforge::OpOrder::insert: index beyond the end");
  if (index < size_) {
    insertAt(placeAt(index), op);
    return;
  }
  Chunk* last = blocks_.empty() ? nullptr : blocks_.back()->chunks.back().get();
  if (last == nullptr || last->ops.size() >= kChunkFill) last = appendChunk();
  insertAt(Place{last, static_cast<std::uint32_t>(last->ops.size())}, op);
}

void OpOrder::insertBehind(const ops::IrOp* anchor, const OpPtr& op) {
  requireNew(op);
  const Place place = placeOf(anchor);
  if (place.chunk == nullptr) throw std::logic_error("netforge::OpOrder::insertBehind: anchor is absent");
  insertAt(Place{place.chunk, place.offset + 1}, op);
}

void OpOrder::insertAt(Place place, const OpPtr& given) {
  const OpPtr op = given;  // the caller's reference may lie in a row that moves
  const bool atEnd =
      place.chunk == blocks_.back()->chunks.back().get() && place.offset == place.chunk->ops.size();
  if (atEnd) {
    if (vectorWanted_ && vector_.size() == size_) vector_.push_back(op);
  } else if (!vector_.empty()) {
    truncateVector(indexOf(place));
  }
  if (place.chunk->ops.size() >= kChunkMax) {
    Chunk& full = *place.chunk;
    splitChunk(full);
    const auto kept = static_cast<std::uint32_t>(full.ops.size());
    if (place.offset > kept) {
      const Block& block = *full.block;
      const std::size_t c = block.find(full);
      // The second half may have gone to the head of the next block.
      place.chunk = c + 1 < block.chunks.size() ? block.chunks[c + 1].get()
                                                : blocks_[block.position + 1]->chunks.front().get();
      place.offset -= kept;
    }
  }
  Chunk& chunk = *place.chunk;
  const std::uint32_t type = typeIdOf(op->getType());
  const auto offset = static_cast<std::ptrdiff_t>(place.offset);
  chunk.ops.insert(chunk.ops.begin() + offset, op);
  chunk.types.insert(chunk.types.begin() + offset, type);
  Block& block = *chunk.block;
  const std::size_t c = block.find(chunk);
  ++block.sizes[c];
  block.typeMasks[c] |= typeBit(type);
  ++blockSizes_[block.position];
  ++size_;
  ++typeCounts_[type];
  setChunk(*op, &chunk);
}

bool OpOrder::erase(const ops::IrOp* op) {
  const Place place = placeOf(op);
  if (place.chunk == nullptr) return false;
  if (!vector_.empty()) truncateVector(indexOf(place));
  Chunk& chunk = *place.chunk;
  const auto offset = static_cast<std::ptrdiff_t>(place.offset);
  const OpPtr held = chunk.ops[place.offset];
  forget(*held);
  --typeCounts_[chunk.types[place.offset]];
  chunk.ops.erase(chunk.ops.begin() + offset);
  chunk.types.erase(chunk.types.begin() + offset);
  Block& block = *chunk.block;
  --block.sizes[block.find(chunk)];
  --blockSizes_[block.position];
  --size_;
  if (chunk.ops.empty()) removeChunk(chunk);
  return true;
}

bool OpOrder::replace(const ops::IrOp* op, const OpPtr& replacement) {
  const Place place = placeOf(op);
  if (place.chunk == nullptr) return false;
  requireNew(replacement);
  const OpPtr next = replacement;
  if (!vector_.empty()) {
    const std::uint32_t index = indexOf(place);
    if (index < vector_.size()) vector_[index] = next;
  }
  Chunk& chunk = *place.chunk;
  const OpPtr held = std::exchange(chunk.ops[place.offset], next);
  forget(*held);
  const std::uint32_t type = typeIdOf(next->getType());
  --typeCounts_[std::exchange(chunk.types[place.offset], type)];
  ++typeCounts_[type];
  Block& block = *chunk.block;
  block.typeMasks[block.find(chunk)] |= typeBit(type);
  setChunk(*next, &chunk);
  return true;
}

OpOrder::Chunk* OpOrder::appendChunk() {
  if (blocks_.empty() || blocks_.back()->chunks.size() >= kBlockFill) {
    blocks_.push_back(std::make_unique<Block>());
    blockSizes_.push_back(0);
    renumberBlocks(blocks_.size() - 1);
  }
  Block& block = *blocks_.back();
  block.chunks.push_back(std::make_unique<Chunk>());
  block.sizes.push_back(0);
  block.typeMasks.push_back(0);
  block.chunks.back()->block = &block;
  return block.chunks.back().get();
}

void OpOrder::splitChunk(Chunk& chunk) {
  Block& block = *chunk.block;
  const std::size_t c = block.find(chunk);
  auto behind = std::make_unique<Chunk>();
  behind->block = &block;
  const auto half = static_cast<std::ptrdiff_t>(chunk.ops.size() / 2);
  behind->ops.reserve(kChunkMax);
  behind->types.reserve(kChunkMax);
  std::move(chunk.ops.begin() + half, chunk.ops.end(), std::back_inserter(behind->ops));
  behind->types.assign(chunk.types.begin() + half, chunk.types.end());
  chunk.ops.resize(static_cast<std::size_t>(half));
  chunk.types.resize(static_cast<std::size_t>(half));
  for (const OpPtr& op : behind->ops) setChunk(*op, behind.get());

  const auto maskOf = [](const Chunk& part) {
    std::uint64_t mask = 0;
    for (const std::uint32_t type : part.types) mask |= typeBit(type);
    return mask;
  };
  const auto at = static_cast<std::ptrdiff_t>(c) + 1;
  block.sizes[c] = static_cast<std::uint32_t>(chunk.ops.size());
  block.typeMasks[c] = maskOf(chunk);
  block.sizes.insert(block.sizes.begin() + at, static_cast<std::uint32_t>(behind->ops.size()));
  block.typeMasks.insert(block.typeMasks.begin() + at, maskOf(*behind));
  block.chunks.insert(block.chunks.begin() + at, std::move(behind));
  if (block.chunks.size() > kBlockMax) splitBlock(block);
}

void OpOrder::splitBlock(Block& block) {
  auto behind = std::make_unique<Block>();
  const auto half = static_cast<std::ptrdiff_t>(block.chunks.size() / 2);
  std::move(block.chunks.begin() + half, block.chunks.end(), std::back_inserter(behind->chunks));
  behind->sizes.assign(block.sizes.begin() + half, block.sizes.end());
  behind->typeMasks.assign(block.typeMasks.begin() + half, block.typeMasks.end());
  block.chunks.resize(static_cast<std::size_t>(half));
  block.sizes.resize(static_cast<std::size_t>(half));
  block.typeMasks.resize(static_cast<std::size_t>(half));
  for (const auto& chunk : behind->chunks) chunk->block = behind.get();

  const std::uint32_t moved = std::accumulate(behind->sizes.begin(), behind->sizes.end(), 0u);
  const auto at = static_cast<std::ptrdiff_t>(block.position) + 1;
  blockSizes_[block.position] -= moved;
  blockSizes_.insert(blockSizes_.begin() + at, moved);
  blocks_.insert(blocks_.begin() + at, std::move(behind));
  renumberBlocks(block.position + 1);
}

void OpOrder::removeChunk(Chunk& chunk) {
  Block& block = *chunk.block;
  const auto c = static_cast<std::ptrdiff_t>(block.find(chunk));
  block.sizes.erase(block.sizes.begin() + c);
  block.typeMasks.erase(block.typeMasks.begin() + c);
  block.chunks.erase(block.chunks.begin() + c);
  if (!block.chunks.empty()) return;
  const std::size_t b = block.position;
  blockSizes_.erase(blockSizes_.begin() + static_cast<std::ptrdiff_t>(b));
  blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(b));
  renumberBlocks(b);
}

void OpOrder::renumberBlocks(std::size_t from) {
  for (std::size_t b = from; b < blocks_.size(); ++b) blocks_[b]->position = b;
}

void OpOrder::truncateVector(std::uint32_t length) const {
  if (length < vector_.size()) vector_.resize(length);
}

const std::vector<OpOrder::OpPtr>& OpOrder::asVector() const {
  vectorWanted_ = true;
  if (vector_.size() == size_) return vector_;
  vector_.reserve(size_);
  auto skip = static_cast<std::uint32_t>(vector_.size());
  std::size_t b = 0;
  while (skip >= blockSizes_[b]) skip -= blockSizes_[b++];
  for (; b < blocks_.size(); ++b) {
    for (const auto& chunk : blocks_[b]->chunks) {
      if (skip >= chunk->ops.size()) {
        skip -= static_cast<std::uint32_t>(chunk->ops.size());
        continue;
      }
      vector_.insert(vector_.end(), chunk->ops.begin() + static_cast<std::ptrdiff_t>(skip), chunk->ops.end());
      skip = 0;
    }
  }
  return vector_;
}

std::uint32_t OpOrder::typeIdOf(const std::string& type) {
  const auto [found, isNew] = typeIds_.emplace(type, static_cast<std::uint32_t>(typeCounts_.size()));
  if (isNew) typeCounts_.push_back(0);
  return found->second;
}

std::uint32_t OpOrder::countOfType(const std::string& type) const {
  const auto found = typeIds_.find(type);
  return found == typeIds_.end() ? 0 : typeCounts_[found->second];
}

std::vector<OpOrder::OpPtr> OpOrder::ofTypes(const std::set<std::string>& types) const {
  std::vector<std::uint8_t> isWanted(typeCounts_.size());
  std::uint64_t mask = 0;
  std::uint32_t wanted = 0;
  for (const std::string& type : types) {
    const auto found = typeIds_.find(type);
    if (found == typeIds_.end() || typeCounts_[found->second] == 0) continue;
    isWanted[found->second] = 1;
    mask |= typeBit(found->second);
    wanted += typeCounts_[found->second];
  }
  std::vector<OpPtr> result;
  if (wanted == 0) return result;
  result.reserve(wanted);
  for (const auto& block : blocks_) {
    for (std::size_t c = 0; c < block->chunks.size(); ++c) {
      if ((block->typeMasks[c] & mask) == 0) continue;
      const Chunk& chunk = *block->chunks[c];
      for (std::size_t i = 0; i < chunk.types.size(); ++i) {
        if (isWanted[chunk.types[i]] != 0) result.push_back(chunk.ops[i]);
      }
      if (result.size() == wanted) return result;
    }
  }
  return result;
}

}  // namespace netforge
