// The graph's containers against naive models, over long random histories.

#include <gtest/gtest.h>
#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>
#include "ir/IrOp.h"
#include "ir/NameIndex.h"
#include "ir/OpOrder.h"
#include "ir/TraceTable.h"

namespace netforge {
namespace {

using OpPtr = OpOrder::OpPtr;

class Random {
 public:
  explicit Random(std::uint32_t seed) : engine(seed) {}
  std::uint32_t below(std::size_t limit) { return static_cast<std::uint32_t>(engine() % limit); }

 private:
  std::mt19937 engine;
};

// More than 63 types, so that some share a bit of the type masks.
OpPtr makeOp(std::uint32_t number) {
  const std::string type = "T" + std::to_string(number % 9 == 0 ? number % 70 : number % 3);
  return std::make_shared<ops::IrOp>("op" + std::to_string(number), type, nullptr);
}

using Ops = std::vector<ops::IrOp*>;

Ops addresses(const std::vector<OpPtr>& ops) {
  Ops result;
  for (const OpPtr& op : ops) result.push_back(op.get());
  return result;
}

Ops ofType(const Ops& model, const std::string& type) {
  Ops result;
  std::copy_if(model.begin(), model.end(), std::back_inserter(result),
               [&](const ops::IrOp* op) { return op->getType() == type; });
  return result;
}

struct History {
  std::size_t size;
  std::size_t edits;
  std::size_t looksEvery;  // edits between two looks at the whole order
  std::size_t spread;      // edits fall into the first 1 / spread of the order
  std::uint32_t inserts;   // of ten edits
};

void compareWithVector(const History& history) {
  const auto [size, edits, looksEvery, spread, inserts] = history;
  Random random(static_cast<std::uint32_t>(size));
  OpOrder order;
  OpOrder other;  // holds some of the ops too
  std::vector<OpPtr> all;
  const auto make = [&] {
    all.push_back(makeOp(static_cast<std::uint32_t>(all.size())));
    return all.back();
  };
  Ops model;
  while (model.size() < size) {
    const OpPtr op = make();
    model.push_back(op.get());
    if (all.size() % 5 == 0) other.append(op);
    order.append(op);
    if (all.size() % 7 == 0 && !other.contains(op.get())) other.append(op);
  }
  for (std::size_t edit = 0; edit < edits; ++edit) {
    const std::uint32_t at = random.below(model.size() / spread + 1);
    const auto place = model.begin() + at;
    const std::uint32_t kind = random.below(10);
    if (kind < inserts || at == model.size()) {
      const OpPtr op = make();
      if (kind % 2 == 0 && at > 0) {
        order.insertBehind(model[at - 1], op);
      } else {
        order.insert(at, op);
      }
      model.insert(place, op.get());
    } else if (random.below(2) == 0) {
      ASSERT_TRUE(order.erase(*place));
      ASSERT_FALSE(order.contains(*place));
      model.erase(place);
    } else if (random.below(3) > 0) {
      const OpPtr op = make();
      ASSERT_TRUE(order.replace(*place, op));
      *place = op.get();
    } else {
      const OpPtr moved = order.at(at);
      order.erase(moved.get());
      model.erase(place);
      const std::uint32_t target = random.below(model.size() + 1);
      order.insert(target, moved);
      model.insert(model.begin() + target, moved.get());
    }
    ASSERT_EQ(order.size(), model.size());
    const std::uint32_t probe = random.below(model.size());
    ASSERT_EQ(order.at(probe).get(), model[probe]);
    ASSERT_EQ(order.indexOf(model[probe]), probe);
    if (edit % looksEvery == 0) {
      ASSERT_EQ(addresses(order.asVector()), model);
      for (const char* type : {"T0", "T1", "T9", "T63", "T69", "T64"}) {
        ASSERT_EQ(addresses(order.ofType(type)), ofType(model, type));
        ASSERT_EQ(order.countOfType(type), order.ofType(type).size());
      }
    }
  }
  ASSERT_EQ(addresses(order.asVector()), model);
  for (const OpPtr& op : other.asVector()) ASSERT_TRUE(other.contains(op.get()));
}

TEST(OpOrder, FollowsAVectorOverRandomEdits) {
  compareWithVector({3, 800, 1, 1, 4});         // the vector is kept up to date at each edit
  compareWithVector({1500, 4000, 100, 1, 4});   // a few chunks, now and then one runs empty
  compareWithVector({9000, 9000, 3000, 9, 9});  // a block is split
}

TEST(OpOrder, ShrinksToNothingAndGrowsAgain) {
  OpOrder order;
  std::vector<OpPtr> ops;
  for (std::uint32_t i = 0; i < 7000; ++i) ops.push_back(makeOp(i));
  for (int round = 0; round < 2; ++round) {
    for (const OpPtr& op : ops) order.insert(0, op);
    EXPECT_EQ(order.indexOf(ops.front().get()), ops.size() - 1);
    for (const OpPtr& op : ops) ASSERT_TRUE(order.erase(op.get()));
    EXPECT_EQ(order.size(), 0u);
    EXPECT_EQ(order.indexOf(ops.front().get()), 0u);
    EXPECT_TRUE(order.asVector().empty());
  }
}

TEST(OpOrder, OneOpInTwoOrders) {
  const OpPtr shared = makeOp(1);
  OpOrder second;
  {
    OpOrder first;
    first.append(shared);
    second.append(makeOp(2));
    second.append(shared);
    EXPECT_EQ(first.indexOf(shared.get()), 0u);
    EXPECT_EQ(second.indexOf(shared.get()), 1u);
  }
  EXPECT_EQ(second.indexOf(shared.get()), 1u) << "the first order is gone, the second still knows its op";
  for (std::uint32_t i = 0; i < 400; ++i) second.insert(0, makeOp(10 + i));
  EXPECT_EQ(second.indexOf(shared.get()), 401u);
  EXPECT_TRUE(second.erase(shared.get()));
  OpOrder third;
  third.append(shared);
  EXPECT_TRUE(third.contains(shared.get()));
  EXPECT_FALSE(second.contains(shared.get()));
  EXPECT_THROW(third.append(shared), std::logic_error);
}

TEST(OpOrder, KeepsNoRemovedOpAlive) {
  OpOrder order;
  for (std::uint32_t i = 0; i < 10; ++i) order.append(makeOp(i));
  (void)order.asVector();
  const std::weak_ptr<ops::IrOp> erased = order.at(4);
  const std::weak_ptr<ops::IrOp> replaced = order.at(2);
  order.erase(order.at(4).get());
  order.replace(order.at(2).get(), makeOp(20));
  EXPECT_TRUE(erased.expired());
  EXPECT_TRUE(replaced.expired());
}

TEST(NameIndex, FollowsAMapOverRandomEdits) {
  for (const std::size_t looksEvery : {1u, 37u, 5000u}) {
    Random random(static_cast<std::uint32_t>(looksEvery));
    NameIndex<std::shared_ptr<int>> index;
    std::map<std::string, std::shared_ptr<int>> model;
    for (int edit = 0; edit < 4000; ++edit) {
      // Long enough for the removed names to be worth sweeping up.
      const std::string stem = "/a/name/of/the/usual/length/n";
      const std::string name = stem + std::to_string(random.below(500));
      const auto value = std::make_shared<int>(edit);
      switch (random.below(5)) {
        case 0:
        case 1:
          ASSERT_EQ(index.insert(name, value), model.emplace(name, value).second);
          break;
        case 2:
          index.set(name, value);
          model[name] = value;
          break;
        default: {
          const auto found = model.find(name);
          ASSERT_EQ(index.take(name), found == model.end() ? nullptr : found->second);
          if (found != model.end()) model.erase(found);
        }
      }
      const std::string probe = edit % 3 == 0 ? name : stem + std::to_string(random.below(500));
      const auto found = model.find(probe);
      const auto* held = index.find(probe);
      ASSERT_EQ(held == nullptr ? nullptr : *held, found == model.end() ? nullptr : found->second);
      ASSERT_EQ(index.size(), model.size());
      if (edit % looksEvery == 0) {
        ASSERT_EQ(index.sorted(), model);
      }
    }
    ASSERT_EQ(index.sorted(), model);
  }
}

TEST(NameIndex, ReleasesRemovedAndReplacedValues) {
  NameIndex<std::shared_ptr<int>> index;
  for (int i = 0; i < 4; ++i) index.insert(std::to_string(i), std::make_shared<int>(i));
  (void)index.sorted();
  const std::weak_ptr<int> taken = *index.find("1");
  const std::weak_ptr<int> replaced = *index.find("2");
  index.take("1");
  index.set("2", std::make_shared<int>(9));
  EXPECT_TRUE(taken.expired());
  EXPECT_TRUE(replaced.expired());
  EXPECT_NE(index.find("0"), nullptr);
  EXPECT_EQ(index.find(""), nullptr) << "the place behind the one found last is free and has no name";
}

TEST(NameIndex, WalksInAndAgainstTheOrderOfAdding) {
  NameIndex<std::shared_ptr<int>> index;
  for (int i = 0; i < 50; ++i) index.insert("n" + std::to_string(i), std::make_shared<int>(i));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(**index.find("n" + std::to_string(i)), i);
  for (int i = 49; i >= 0; --i) EXPECT_EQ(**index.find("n" + std::to_string(i)), i);
}

TEST(TraceTable, FollowsAListOverRandomEdits) {
  Random random(11);
  TraceTable table;
  std::vector<TraceRecord> model;
  const auto locate = [&](const std::string& name) {
    return std::find_if(model.begin(), model.end(), [&](const auto& record) { return record.name == name; });
  };
  for (int edit = 0; edit < 6000; ++edit) {
    const std::string name = "r" + std::to_string(random.below(400));
    const std::vector<TraceSource> sources = {{"s" + std::to_string(edit), TraceKind::Op}};
    const auto found = locate(name);
    if (random.below(2) == 0) {
      table.set(name, sources);
      if (found == model.end()) {
        model.push_back({name, sources});
      } else {
        found->sources = sources;
      }
    } else {
      table.erase(name);
      if (found != model.end()) model.erase(found);
    }
    const std::string probe = "r" + std::to_string(random.below(400));
    const auto* record = table.find(probe);
    const auto expected = locate(probe);
    ASSERT_EQ(record != nullptr, expected != model.end());
    if (record != nullptr) {
      ASSERT_EQ(record->sources, expected->sources);
    }
    if (edit % 500 == 0) {
      ASSERT_EQ(table.records().size(), model.size());
      for (std::size_t i = 0; i < model.size(); ++i) ASSERT_EQ(table.records()[i].name, model[i].name);
    }
  }
}

TEST(TraceSourceList, KeepsFirstOccurrencesInOrderHoweverLong) {
  TraceSourceList list;
  std::vector<TraceSource> expected;
  for (int i = 0; i < 200; ++i) {
    const std::string name = "s" + std::to_string(i % 60);
    const TraceKind kind = i % 2 == 0 ? TraceKind::Op : TraceKind::Tensor;
    list.add({name, kind});
    if (i < 60) expected.push_back({name, kind});
  }
  list.add({"s0", TraceKind::Tensor});  // the other kind of a name that is there
  expected.push_back({"s0", TraceKind::Tensor});
  EXPECT_EQ(list.sources(), expected);
}

}  // namespace
}  // namespace netforge
