#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace netforge {

namespace ops {
class IrOp;
}

/// The execution order of a graph's ops.
///
/// A tree of three fixed levels: the order is a row of blocks, a block a row of chunks, a chunk a row of up
/// to a few hundred ops. Each op knows its chunk (two private members of IrOp that belong to this class),
/// and each block holds the sizes of its chunks side by side, so that finding an op's index, an index's op,
/// and inserting or erasing anywhere cost a scan of a few short arrays, whatever the number of ops.
///
/// Ops are told apart by identity and stand in an order at most once. An op object may stand in the orders
/// of several graphs: the first one owns the op's private members, the others keep a side table.
///
/// Op types are numbered here; chunks remember the types of their ops, which makes counting and listing the
/// ops of one type independent of the number of other ops, but for one machine word per chunk.
class OpOrder {
 public:
  using OpPtr = std::shared_ptr<ops::IrOp>;

  OpOrder();
  ~OpOrder();
  OpOrder(const OpOrder&) = delete;
  OpOrder& operator=(const OpOrder&) = delete;

  std::uint32_t size() const { return size_; }
  bool contains(const ops::IrOp* op) const;

  /// The position of the op, or size() when it is absent or null.
  std::uint32_t indexOf(const ops::IrOp* op) const;
  /// The op at a position below size().
  const OpPtr& at(std::uint32_t index) const;

  /// Inserts an op that is not in the order before position `index`, at most size(). A null op, one that is
  /// already here, or an index beyond the end throws std::logic_error: the graph checks before it calls.
  void insert(std::uint32_t index, const OpPtr& op);
  void append(const OpPtr& op) { insert(size_, op); }
  /// Inserts an op right behind `anchor`, which is in the order.
  void insertBehind(const ops::IrOp* anchor, const OpPtr& op);
  /// Takes an op out; false when it is absent.
  bool erase(const ops::IrOp* op);
  /// Puts `replacement`, which is not in the order, in the place of `op`; false when `op` is absent.
  bool replace(const ops::IrOp* op, const OpPtr& replacement);

  /// The whole order. Built lazily; the reference and its elements are valid until the next edit. Edits
  /// leave the part in front of them as it is, so appending, replacing and erasing at the end are cheap.
  const std::vector<OpPtr>& asVector() const;

  std::uint32_t countOfType(const std::string& type) const;
  /// The ops of a type, or of several types, in execution order.
  std::vector<OpPtr> ofType(const std::string& type) const { return ofTypes({type}); }
  std::vector<OpPtr> ofTypes(const std::set<std::string>& types) const;

 private:
  struct Block;
  struct Chunk;
  struct Place {
    Chunk* chunk;
    std::uint32_t offset;
  };

  Chunk* chunkOf(const ops::IrOp* op) const;
  void setChunk(ops::IrOp& op, Chunk* chunk);
  void forget(ops::IrOp& op);

  Place placeOf(const ops::IrOp* op) const;  // chunk null when absent
  Place placeAt(std::uint32_t index) const;  // index below size()
  std::uint32_t indexOf(const Place& place) const;

  void requireNew(const OpPtr& op) const;
  void insertAt(Place place, const OpPtr& op);
  Chunk* appendChunk();
  void splitChunk(Chunk& chunk);
  void splitBlock(Block& block);
  void removeChunk(Chunk& chunk);
  void renumberBlocks(std::size_t from);
  void truncateVector(std::uint32_t length) const;
  std::uint32_t typeIdOf(const std::string& type);

  std::vector<std::unique_ptr<Block>> blocks_;
  std::vector<std::uint32_t> blockSizes_;
  std::uint32_t size_ = 0;

  std::unordered_map<std::string, std::uint32_t> typeIds_;
  std::vector<std::uint32_t> typeCounts_;

  std::unordered_map<const ops::IrOp*, Chunk*> foreign_;  // ops whose members another order owns

  mutable std::vector<OpPtr> vector_;  // the first ops of the order, all of them after asVector()
  mutable bool vectorWanted_ = false;  // somebody asked for it, so appending keeps it whole
};

}  // namespace netforge
