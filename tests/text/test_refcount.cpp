// CSmartRefCountPtr and UTFBuffer_t: counting across copies, moves and
// resets, deletion with the last pointer, and threads sharing one object.
#include <quenlib/refcount.h>

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace QuenLibA500;

namespace {

struct Tracked : CRefCountedObject {
  explicit Tracked(int* deaths) : deaths(deaths) {}
  ~Tracked() override { ++*deaths; }
  int* deaths;
};

}  // namespace

TEST(RefCount, CopiesMovesAndResets) {
  int deaths = 0;
  auto* raw = new Tracked(&deaths);
  {
    CSmartRefCountPtr<Tracked> a(raw);
    EXPECT_EQ(raw->refCount(), 1);
    CSmartRefCountPtr<Tracked> b = a;
    EXPECT_EQ(raw->refCount(), 2);
    CSmartRefCountPtr<Tracked> c = std::move(b);
    EXPECT_FALSE(b);
    EXPECT_EQ(raw->refCount(), 2);
    auto& alias = c;
    c = alias;  // self-assignment keeps the object
    EXPECT_EQ(raw->refCount(), 2);
    c.reset(raw);  // resetting to the same object is safe
    EXPECT_EQ(raw->refCount(), 2);
    c = nullptr;
    EXPECT_EQ(raw->refCount(), 1);
    EXPECT_EQ(deaths, 0);
    EXPECT_EQ(a.get(), raw);
    EXPECT_TRUE(a == CSmartRefCountPtr<Tracked>(raw));
  }
  EXPECT_EQ(deaths, 1);
}

TEST(RefCountConcurrent, ManyThreadsCopyAndDrop) {
  int deaths = 0;
  CSmartRefCountPtr<Tracked> root(new Tracked(&deaths));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([root] {
      for (int i = 0; i < 20000; ++i) {
        CSmartRefCountPtr<Tracked> local = root;
        CSmartRefCountPtr<Tracked> other(local);
        other = nullptr;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(root->refCount(), 1);
  root = nullptr;
  EXPECT_EQ(deaths, 1);
}
