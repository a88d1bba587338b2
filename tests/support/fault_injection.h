// Makes calls into the C library fail, and counts and records them, without any hook in the code under test: the linker
// redirects the calls listed in `Call` (--wrap). A program that links kvfs_test_support gets the redirection.
//
//   FaultInjector faults;                                   // armed from here to the end of the scope
//   faults.fail(Call::kPread64, 2);                         // the second read fails
//   const kvfs_result result = kvfs_device_read_disk_sectors(...);
//   EXPECT_EQ(faults.count(Call::kPread64), 2u);
//   EXPECT_EQ(faults.outstanding_allocations(), 0u);        // whatever was allocated in the scope was freed
//
// To let each call of an operation fail in turn there is fail_each() (tests/fixtures/fail_each.h).
//
// What counts: calls made while the injector is armed, on the thread that armed it (or on every thread, if asked for),
// from any code that is linked into the program. That includes the test's own code, so keep the scope tight or use
// FaultInjector::Pause around it. operator new, and calls that the C library makes inside itself, do not count.

#ifndef KVFS_TEST_FAULT_INJECTION_H
#define KVFS_TEST_FAULT_INJECTION_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvfs_test {

// The redirected calls. The order is that of the names in call_name().
enum class Call {
  kMalloc,
  kCalloc,
  kRealloc,
  kFree,
  kRwlockattrInit,
  kRwlockattrSetpshared,
  kRwlockattrDestroy,
  kRwlockInit,
  kRwlockDestroy,
  kRwlockRdlock,
  kRwlockWrlock,
  kRwlockUnlock,
  kPread64,
  kPwrite64,
  kFlock,
  kFsync,
  kOpen64,
  kFopen64,
  kGetmntent,
};
inline constexpr std::size_t kCallCount = 19;

// The C library's name of the call, as in "pread64", and back.
const char* call_name(Call call);
std::optional<Call> call_from_name(std::string_view name);

// What a call does instead of its work.
struct Fault {
  enum class Kind {
    kError,    // fails in the call's own way, with `error`: a null pointer or -1 with errno, or the number itself
    kReturn,   // does nothing, sets errno to `error` and returns `value` (pread64, pwrite64, flock, open64, pthread_*)
    kShort,    // pread64 and pwrite64: transfers `value` bytes less than asked for and returns that smaller count
    kPretend,  // does nothing and reports success: a write that never reaches the medium
    kExit,     // ends the process at once with the status `value`, as a loss of power would
  };

  Kind kind = Kind::kError;
  int error = EIO;
  long long value = 0;

  // Fails with the error number. Calls that give something back do so nevertheless and only report a failure
  // (pthread_rwlock_unlock, pthread_rwlockattr_destroy), so that the code under test can be run on to its end; all
  // others have no effect.
  static Fault error_number(int error) { return {Kind::kError, error, 0}; }
  static Fault returning(long long value, int error = EIO) { return {Kind::kReturn, error, value}; }
  static Fault short_by(std::size_t bytes) { return {Kind::kShort, 0, static_cast<long long>(bytes)}; }
  static Fault nothing_transferred() { return returning(0, 0); }
  static Fault pretend() { return {Kind::kPretend, 0, 0}; }
  static Fault exit(int status) { return {Kind::kExit, 0, status}; }

  // The failure that the call is most likely to meet: ENOMEM for allocations, EAGAIN for locks, EIO for the rest.
  static Fault usual(Call call);
};

// A recorded pread64 or pwrite64.
struct Transfer {
  Call call;
  int fd;
  std::uint64_t offset;
  std::size_t size;                  // bytes asked for
  long long result;                  // what the caller was told
  std::vector<unsigned char> bytes;  // pwrite64: what the caller wanted written

  std::uint64_t end() const { return offset + size; }
};

// A recorded flock, open64 or fopen64.
struct FileCall {
  Call call;
  std::string path;  // open64 and fopen64
  int fd;            // flock, and open64's result
  int flags;         // open64's flags, flock's operation
};

// A recorded pthread_rwlock_* call on a lock.
struct LockCall {
  Call call;
  const void* lock;
  int result;
};

// Arms fault injection for its lifetime. There is one at a time.
class FaultInjector {
 public:
  enum class Threads { kCurrent, kAll };

  explicit FaultInjector(Threads threads = Threads::kCurrent);
  ~FaultInjector();
  FaultInjector(const FaultInjector&) = delete;
  FaultInjector& operator=(const FaultInjector&) = delete;

  // Calls made while one of these lives reach the C library, uncounted and unrecorded. Memory that they free is still
  // taken off the books.
  class Pause {
   public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
  };

  // The n-th call (from 1, counted since the injector was made) meets the fault. Several may be set, for one call too.
  FaultInjector& fail(Call call, unsigned long n, Fault fault);
  FaultInjector& fail(Call call, unsigned long n) { return fail(call, n, Fault::usual(call)); }
  // The n-th call and every later one.
  FaultInjector& fail_from(Call call, unsigned long n, Fault fault);
  FaultInjector& fail_from(Call call, unsigned long n) { return fail_from(call, n, Fault::usual(call)); }
  // The n-th of malloc, calloc and realloc taken together.
  FaultInjector& fail_allocation(unsigned long n);
  FaultInjector& fail_allocations_from(unsigned long n);
  // Forgets the faults; counts, records and books of memory stay.
  void clear_faults();
  // Allocations of more than `bytes` fail.
  FaultInjector& refuse_allocations_above(std::size_t bytes);

  unsigned long count(Call call) const;
  unsigned long count_allocations() const;  // malloc, calloc and realloc
  unsigned long delivered() const;          // calls that met a fault or were refused

  // Memory allocated in the scope and not freed since.
  std::size_t outstanding_allocations() const;
  std::size_t outstanding_bytes() const;
  std::size_t peak_bytes() const;
  // The size asked for by every allocation, in order.
  std::vector<std::size_t> allocation_sizes() const;

  // Read and write locks acquired in the scope less those released; and locks initialised less those destroyed.
  long locks_held() const;
  long locks_alive() const;

  std::vector<Transfer> transfers() const;
  std::vector<Transfer> reads() const;
  std::vector<Transfer> writes() const;
  std::vector<FileCall> file_calls() const;
  std::vector<LockCall> lock_calls() const;
  // Forgets what was recorded so far; counts, books of memory and faults stay.
  void clear_records();
};

// Reads faults from a text, as the environment variable KVFS_FAULT holds them: entries separated by commas, each
// "call:n[+][:what]" where "+" means every later call as well, and what is errno=N, return=V, short=K, pretend or
// exit=N. "allocation" stands for malloc, calloc and realloc together. Returns false, and sets nothing of the bad entry
// nor of those behind it, when the text is wrong.
bool add_faults_from_text(FaultInjector& faults, std::string_view text);

// Makes fopen64 of a path open another file instead, so that a system's own table can be replaced. Both texts are kept
// by the caller; a null path ends it.
void redirect_fopen64(const char* path, const char* file);

// Makes getmntent hand out the device of an entry as the kernel writes it, with blanks and backslashes as three octal
// digits, as some C libraries do.
void leave_mounts_encoded(bool encoded);

// Appends a line for each open64, fopen64, flock, pread64 and pwrite64 in the scope to the descriptor, at the time of
// the call: "open64 PATH flags=F = FD", "flock FD OPERATION = R", "pread64 FD offset=O size=S = R". -1 turns it off.
void trace_calls_to(int fd);

}  // namespace kvfs_test

#endif  // KVFS_TEST_FAULT_INJECTION_H
