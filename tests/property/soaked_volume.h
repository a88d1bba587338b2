// A random volume in use: random calls of the C interface, growth and shrinking in between, against a model.

#ifndef KVFS_SOAKED_VOLUME_H
#define KVFS_SOAKED_VOLUME_H

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kvfs.h"
#include "property/random_volume.h"
#include "property/session_model.h"
#include "session_fixture.h"

namespace kvfs_test {

// What a whole run comes to.
struct Figures {
  std::map<std::string, unsigned long> done;  // by operation
  unsigned long operations = 0;
  unsigned long volumes = 0;
  unsigned long cuts = 0;
  unsigned long refused = 0;  // as the model says
  unsigned long limited =
      0;  // refused, with nothing changed, because a node would run empty or its index could not follow
  unsigned long without_room = 0;   // half done in a catalog that is full, and discarded
  unsigned long without_space = 0;  // no free block
};

// Handles that stay open over other calls.
struct OpenStream {
  kvfs_stream* stream = nullptr;
  std::uint32_t id = 0;
  std::uint32_t fork = 0;
};

struct OpenListing {
  kvfs_listing* listing = nullptr;
  std::uint32_t folder = 0;
  std::set<std::uint32_t> expected;  // were there at the beginning and are to come
  std::set<std::uint32_t> changed;   // since the beginning: these may come or not
};

class SoakedVolume {
 public:
  SoakedVolume(unsigned long seed, Figures& figures);
  ~SoakedVolume();
  SoakedVolume(const SoakedVolume&) = delete;
  SoakedVolume& operator=(const SoakedVolume&) = delete;

  // One random operation.
  void operate();
  // Loses the power, now or within a flush, and goes on with what is on the device.
  void cut_power();
  // Expects the volume to be sound and to hold what the model has.
  void compare();
  // Whether the catalog is full and cannot grow.
  [[nodiscard]] bool is_used_up() const { return is_used_up_; }
  // The last operations, for who looks into a failure.
  [[nodiscard]] std::string history() const;

 private:
  using Operation = void (SoakedVolume::*)();

  static void receive(void* context, const char* level, const char* routine, int line, const char* text);

  void open();
  void close();
  void close_handles();
  void note(const std::string& operation);

  // Changes.
  void set_label();
  void rename();
  void remove();
  void make_link();
  void flush();
  void discard();
  void reopen();
  void grow_or_shrink();
  void expect_discarded();
  [[nodiscard]] bool is_done(std::uint64_t result, const std::set<std::uint64_t>& refusals);
  [[nodiscard]] std::set<std::uint64_t> refusals_of_place(std::uint32_t id, std::uint32_t folder, const Name& name);
  void changed(std::uint32_t id);
  void expect_no_free_byte();

  // Questions.
  void find();
  void list();
  void read();
  void ask();
  void expect_item(const kvfs_item& item, std::uint32_t id);
  void expect_content(std::uint32_t id, std::uint32_t fork);
  void step(OpenListing& listing);
  void read_some(const OpenStream& stream);

  // Work below sessions.
  [[nodiscard]] bool expand_catalog(OpenVolume& volume);
  [[nodiscard]] bool expand_startup(OpenVolume& volume);
  [[nodiscard]] bool shrink_startup(OpenVolume& volume);
  [[nodiscard]] bool insert_item(OpenVolume& volume);
  void put_allocation_right(const Volume& before);

  // Losses of power.
  static void use_torn(const Volume& image);
  void tolerate_what_a_cut_leaves();
  [[nodiscard]] Lines findings(const Volume& volume) const;

  // An item, mostly one that is there.
  [[nodiscard]] std::uint32_t any_item();
  [[nodiscard]] std::uint32_t any_folder();
  // A name for an item of the folder, now and then one that is taken.
  [[nodiscard]] Name any_name(std::uint32_t folder);
  [[nodiscard]] std::string path_of(std::uint32_t id);
  [[nodiscard]] Content content_of(std::uint32_t id, std::uint32_t fork) const;

  Random random_;
  Figures& figures_;
  VolumeDescription description_;
  Volume image_;  // what is on the device while no session is open
  SessionModel model_;
  SessionModel saved_;  // what the last flush has brought to the device
  std::uint32_t most_units_;
  std::unique_ptr<TestSession> session_;
  std::vector<OpenStream> streams_;
  std::vector<OpenListing> listings_;
  Lines log_;                        // since the operation began
  std::set<std::string> tolerated_;  // findings of these beginnings, which a loss of power may leave
  std::deque<std::string> history_;
  bool needs_room_ = false;
  bool is_used_up_ = false;
};

}  // namespace kvfs_test

#endif  // KVFS_SOAKED_VOLUME_H
