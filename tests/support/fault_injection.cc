#include "fault_injection.h"

#include <fcntl.h>
#include <mntent.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <string>
#include <system_error>
#include <unordered_map>
#include <utility>

// The C library's own calls, and our stand-ins for them. The names are the linker's: with --wrap=NAME a reference to
// NAME becomes one to __wrap_NAME, and __real_NAME means what NAME meant before.
// NOLINTBEGIN(clang-diagnostic-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {
void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void __real_free(void* block);
int __real_pthread_rwlockattr_init(pthread_rwlockattr_t* attribute);
int __real_pthread_rwlockattr_setpshared(pthread_rwlockattr_t* attribute, int shared);
int __real_pthread_rwlockattr_destroy(pthread_rwlockattr_t* attribute);
int __real_pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attribute);
int __real_pthread_rwlock_destroy(pthread_rwlock_t* lock);
int __real_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __real_pthread_rwlock_unlock(pthread_rwlock_t* lock);
ssize_t __real_pread64(int fd, void* buffer, std::size_t size, off64_t offset);
ssize_t __real_pwrite64(int fd, const void* buffer, std::size_t size, off64_t offset);
int __real_flock(int fd, int operation);
int __real_fsync(int fd);
int __real_open64(const char* path, int flags, ...);
FILE* __real_fopen64(const char* path, const char* mode);
struct mntent* __real_getmntent(FILE* stream);

void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
void __wrap_free(void* block);
int __wrap_pthread_rwlockattr_init(pthread_rwlockattr_t* attribute);
int __wrap_pthread_rwlockattr_setpshared(pthread_rwlockattr_t* attribute, int shared);
int __wrap_pthread_rwlockattr_destroy(pthread_rwlockattr_t* attribute);
int __wrap_pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attribute);
int __wrap_pthread_rwlock_destroy(pthread_rwlock_t* lock);
int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock);
int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock);
int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock);
ssize_t __wrap_pread64(int fd, void* buffer, std::size_t size, off64_t offset);
ssize_t __wrap_pwrite64(int fd, const void* buffer, std::size_t size, off64_t offset);
int __wrap_flock(int fd, int operation);
int __wrap_fsync(int fd);
int __wrap_open64(const char* path, int flags, ...);
FILE* __wrap_fopen64(const char* path, const char* mode);
struct mntent* __wrap_getmntent(FILE* stream);
}
// NOLINTEND(clang-diagnostic-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace kvfs_test {
namespace {

constexpr std::array<const char*, kCallCount> kCallNames = {
    "malloc",
    "calloc",
    "realloc",
    "free",
    "pthread_rwlockattr_init",
    "pthread_rwlockattr_setpshared",
    "pthread_rwlockattr_destroy",
    "pthread_rwlock_init",
    "pthread_rwlock_destroy",
    "pthread_rwlock_rdlock",
    "pthread_rwlock_wrlock",
    "pthread_rwlock_unlock",
    "pread64",
    "pwrite64",
    "flock",
    "fsync",
    "open64",
    "fopen64",
    "getmntent",
};
static_assert(static_cast<std::size_t>(Call::kGetmntent) + 1 == kCallCount);

constexpr std::size_t index_of(Call call) {
  return static_cast<std::size_t>(call);
}

constexpr bool is_allocation(Call call) {
  return call == Call::kMalloc || call == Call::kCalloc || call == Call::kRealloc;
}

// Calls that give something back. Failing them for good would leave the lock held and the code under test waiting for
// itself at the next step.
constexpr bool gives_back(Call call) {
  return call == Call::kRwlockUnlock || call == Call::kRwlockattrDestroy;
}

// A fault and the calls that it meets.
struct Plan {
  std::optional<Call> call;  // none: any allocation
  unsigned long first;
  bool onwards;
  Fault fault;

  bool meets(Call other, unsigned long own_count, unsigned long allocation_count) const {
    if (call.has_value() ? *call != other : !is_allocation(other)) {
      return false;
    }
    const unsigned long n = call.has_value() ? own_count : allocation_count;
    return onwards ? n >= first : n == first;
  }
};

// Everything that an injector counts, records and is told. Guarded by g_mutex.
struct State {
  FaultInjector::Threads threads;
  pthread_t owner;

  std::vector<Plan> plans;
  std::size_t allocation_limit = std::numeric_limits<std::size_t>::max();

  std::array<unsigned long, kCallCount> counts{};
  unsigned long allocations = 0;
  unsigned long delivered = 0;

  std::unordered_map<const void*, std::size_t> blocks;
  std::size_t bytes = 0;
  std::size_t peak = 0;
  std::vector<std::size_t> sizes;

  long locks_held = 0;
  long locks_alive = 0;

  std::vector<Transfer> transfers;
  std::vector<FileCall> file_calls;
  std::vector<LockCall> lock_calls;

  void add_block(const void* block, std::size_t size) {
    blocks[block] = size;
    bytes += size;
    peak = std::max(peak, bytes);
  }

  std::optional<std::size_t> remove_block(const void* block) {
    const auto found = blocks.find(block);
    if (found == blocks.end()) {
      return std::nullopt;
    }
    const std::size_t size = found->second;
    bytes -= size;
    blocks.erase(found);
    return size;
  }
};

std::mutex g_mutex;
std::atomic<State*> g_state = nullptr;
std::atomic<int> g_trace = -1;
const char* g_redirected = nullptr;  // the path that fopen64 looks up elsewhere
const char* g_redirected_to = nullptr;
bool g_mounts_encoded = false;  // what getmntent gives
// Above zero while this thread is inside the bookkeeping, or the test has asked for a pause.
thread_local int g_depth = 0;

class Inside {
 public:
  Inside() { g_depth++; }
  ~Inside() { g_depth--; }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

// Access to the state of the armed injector, if there is one, with errno left as the call under test left it.
class Books {
 public:
  Books() : lock_(g_mutex), errno_(errno) {}
  ~Books() { errno = errno_; }
  Books(const Books&) = delete;
  Books& operator=(const Books&) = delete;

  State* operator->() const { return g_state; }
  explicit operator bool() const { return g_state != nullptr; }

 private:
  Inside inside_;
  std::lock_guard<std::mutex> lock_;
  int errno_;
};

// What is to happen to one call.
struct Verdict {
  bool counted = false;
  std::optional<Fault> fault;
};

bool counts_here() {
  const State* const state = g_state;
  return g_depth == 0 && state != nullptr &&
         (state->threads == FaultInjector::Threads::kAll || pthread_equal(state->owner, pthread_self()) != 0);
}

Verdict judge(Call call, std::size_t allocation_size = 0) {
  if (!counts_here()) {
    return {};
  }
  const Books books;
  Verdict verdict{true, std::nullopt};
  const unsigned long own_count = ++books->counts[index_of(call)];
  if (is_allocation(call)) {
    books->allocations++;
    books->sizes.push_back(allocation_size);
    if (allocation_size > books->allocation_limit) {
      verdict.fault = Fault::usual(call);
    }
  }
  for (const Plan& plan : books->plans) {
    if (plan.meets(call, own_count, books->allocations)) {
      verdict.fault = plan.fault;
    }
  }
  if (verdict.fault.has_value()) {
    books->delivered++;
    if (verdict.fault->kind == Fault::Kind::kExit) {
      _exit(static_cast<int>(verdict.fault->value));
    }
  }
  return verdict;
}

__attribute__((format(printf, 1, 2))) void trace(const char* format, ...) {
  const int fd = g_trace;
  if (fd < 0) {
    return;
  }
  const int saved_errno = errno;
  std::array<char, 4352> line;  // holds PATH_MAX and the numbers
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
  va_end(arguments);
  const std::size_t size = std::min(static_cast<std::size_t>(std::max(length, 0)), line.size() - 1);
  if (write(fd, line.data(), size) != static_cast<ssize_t>(size)) {
    std::fputs("fault injection: the trace cannot be written\n", stderr);
    std::abort();
  }
  errno = saved_errno;
}

template <typename Real>
void* allocate(Call call, std::size_t size, Real real) {
  const Verdict verdict = judge(call, size);
  if (verdict.fault.has_value()) {
    errno = verdict.fault->error;
    return nullptr;
  }
  void* const block = real();
  if (verdict.counted && block != nullptr) {
    const Books books;
    books->add_block(block, size);
  }
  return block;
}

// A block goes off the books before it is given back: afterwards its address may belong to another thread.
std::optional<std::size_t> take_off_the_books(const void* block) {
  if (block == nullptr || g_state == nullptr) {
    return std::nullopt;
  }
  const Books books;
  return books ? books->remove_block(block) : std::nullopt;
}

void put_on_the_books(const void* block, std::size_t size) {
  const Books books;
  if (books) {
    books->add_block(block, size);
  }
}

void* reallocate(void* block, std::size_t size) {
  const Verdict verdict = judge(Call::kRealloc, size);
  if (verdict.fault.has_value()) {
    errno = verdict.fault->error;
    return nullptr;
  }
  const std::optional<std::size_t> old_size = take_off_the_books(block);
  void* const moved = __real_realloc(block, size);
  if (moved != nullptr) {
    if (verdict.counted || old_size.has_value()) {
      put_on_the_books(moved, size);
    }
  } else if (old_size.has_value() && size != 0) {
    put_on_the_books(block, *old_size);  // a failed realloc leaves the block as it was
  }
  return moved;
}

// What a successful call changes in the number of locks held and alive.
long held_change(Call call) {
  switch (call) {
    case Call::kRwlockRdlock:
    case Call::kRwlockWrlock:
      return 1;
    case Call::kRwlockUnlock:
      return -1;
    default:
      return 0;
  }
}

long alive_change(Call call) {
  switch (call) {
    case Call::kRwlockInit:
      return 1;
    case Call::kRwlockDestroy:
      return -1;
    default:
      return 0;
  }
}

// `lock` is null for the calls on attributes, which are not recorded.
template <typename Real>
int lock_call(Call call, const void* lock, Real real) {
  const Verdict verdict = judge(call);
  if (!verdict.counted) {
    return real();
  }
  int result = 0;
  bool done = true;
  if (!verdict.fault.has_value()) {
    result = real();
    done = result == 0;
  } else {
    const Fault& fault = *verdict.fault;
    done = gives_back(call) && fault.kind == Fault::Kind::kError && real() == 0;
    result = fault.kind == Fault::Kind::kError    ? fault.error
             : fault.kind == Fault::Kind::kReturn ? static_cast<int>(fault.value)
                                                  : 0;
  }
  const Books books;
  if (done) {
    books->locks_held += held_change(call);
    books->locks_alive += alive_change(call);
  }
  if (lock != nullptr) {
    books->lock_calls.push_back({call, lock, result});
  }
  return result;
}

// `real` transfers the number of bytes that it is given.
template <typename Real>
ssize_t transfer(Call call, int fd, const unsigned char* written, std::size_t size, off64_t offset, Real real) {
  const Verdict verdict = judge(call);
  if (!verdict.counted) {
    return real(size);
  }
  ssize_t result = static_cast<ssize_t>(size);
  if (!verdict.fault.has_value()) {
    result = real(size);
  } else if (verdict.fault->kind == Fault::Kind::kShort) {
    result = real(size - std::min(size, static_cast<std::size_t>(verdict.fault->value)));
  } else if (verdict.fault->kind != Fault::Kind::kPretend) {
    result = verdict.fault->kind == Fault::Kind::kReturn ? static_cast<ssize_t>(verdict.fault->value) : -1;
    errno = verdict.fault->error;
  }
  trace("%s %d offset=%llu size=%zu = %zd\n", call_name(call), fd, static_cast<unsigned long long>(offset), size,
        result);
  const Books books;
  books->transfers.push_back(
      {call, fd, static_cast<std::uint64_t>(offset), size, result,
       written == nullptr ? std::vector<unsigned char>() : std::vector<unsigned char>(written, written + size)});
  return result;
}

// Runs a call that reports failure with -1 and errno.
template <typename Real>
int file_call(const Verdict& verdict, Real real) {
  if (!verdict.fault.has_value()) {
    return real();
  }
  switch (verdict.fault->kind) {
    case Fault::Kind::kPretend:
      return 0;
    case Fault::Kind::kReturn:
      errno = verdict.fault->error;
      return static_cast<int>(verdict.fault->value);
    default:
      errno = verdict.fault->error;
      return -1;
  }
}

void record_file_call(const FileCall& call) {
  const Books books;
  books->file_calls.push_back(call);
}

std::optional<long long> number_from(std::string_view text) {
  long long number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

// Cuts the text off in front of the separator and returns it; `rest` keeps what stands behind.
std::string_view take_until(std::string_view& rest, char separator) {
  const std::size_t at = rest.find(separator);
  const std::string_view head = rest.substr(0, at);
  rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + 1);
  return head;
}

std::optional<Fault> fault_from_text(std::string_view text) {
  if (text == "pretend") {
    return Fault::pretend();
  }
  const std::string_view kind = take_until(text, '=');
  const std::optional<long long> value = number_from(text);
  if (!value.has_value()) {
    return std::nullopt;
  }
  if (kind == "errno") {
    return Fault::error_number(static_cast<int>(*value));
  }
  if (kind == "return") {
    return Fault::returning(*value);
  }
  if (kind == "short" && *value >= 0) {
    return Fault::short_by(static_cast<std::size_t>(*value));
  }
  if (kind == "exit") {
    return Fault::exit(static_cast<int>(*value));
  }
  return std::nullopt;
}

std::optional<Plan> plan_from_text(std::string_view text) {
  const std::string_view name = take_until(text, ':');
  std::string_view position = take_until(text, ':');
  const bool onwards = position.ends_with('+');
  if (onwards) {
    position.remove_suffix(1);
  }
  const std::optional<Call> call = call_from_name(name);
  const std::optional<long long> n = number_from(position);
  const std::optional<Fault> fault = text.empty() ? Fault::usual(call.value_or(Call::kMalloc)) : fault_from_text(text);
  if ((!call.has_value() && name != "allocation") || !n.has_value() || *n < 1 || !fault.has_value()) {
    return std::nullopt;
  }
  return Plan{call, static_cast<unsigned long>(*n), onwards, *fault};
}

}  // namespace

const char* call_name(Call call) {
  return kCallNames[index_of(call)];
}

std::optional<Call> call_from_name(std::string_view name) {
  const auto found = std::find(kCallNames.begin(), kCallNames.end(), name);
  if (found == kCallNames.end()) {
    return std::nullopt;
  }
  return static_cast<Call>(found - kCallNames.begin());
}

Fault Fault::usual(Call call) {
  if (is_allocation(call)) {
    return error_number(ENOMEM);
  }
  if (call == Call::kRwlockDestroy) {
    return error_number(EBUSY);
  }
  const bool on_lock = index_of(call) >= index_of(Call::kRwlockattrInit) && index_of(call) < index_of(Call::kPread64);
  return error_number(on_lock ? EAGAIN : EIO);
}

FaultInjector::FaultInjector(Threads threads) {
  if (g_state != nullptr) {
    std::fputs("fault injection: there is an armed injector already\n", stderr);
    std::abort();
  }
  const Inside inside;
  auto* const state = new State{};
  state->threads = threads;
  state->owner = pthread_self();
  g_state = state;
}

FaultInjector::~FaultInjector() {
  const Inside inside;
  delete g_state.exchange(nullptr);
}

FaultInjector::Pause::Pause() {
  g_depth++;
}

FaultInjector::Pause::~Pause() {
  g_depth--;
}

namespace {

void add_plan(const Plan& plan) {
  const Books books;
  books->plans.push_back(plan);
}

}  // namespace

FaultInjector& FaultInjector::fail(Call call, unsigned long n, Fault fault) {
  add_plan({call, n, false, fault});
  return *this;
}

FaultInjector& FaultInjector::fail_from(Call call, unsigned long n, Fault fault) {
  add_plan({call, n, true, fault});
  return *this;
}

FaultInjector& FaultInjector::fail_allocation(unsigned long n) {
  add_plan({std::nullopt, n, false, Fault::usual(Call::kMalloc)});
  return *this;
}

FaultInjector& FaultInjector::fail_allocations_from(unsigned long n) {
  add_plan({std::nullopt, n, true, Fault::usual(Call::kMalloc)});
  return *this;
}

void FaultInjector::clear_faults() {
  const Books books;
  books->plans.clear();
}

FaultInjector& FaultInjector::refuse_allocations_above(std::size_t bytes) {
  const Books books;
  books->allocation_limit = bytes;
  return *this;
}

unsigned long FaultInjector::count(Call call) const {
  const Books books;
  return books->counts[index_of(call)];
}

unsigned long FaultInjector::count_allocations() const {
  const Books books;
  return books->allocations;
}

unsigned long FaultInjector::delivered() const {
  const Books books;
  return books->delivered;
}

std::size_t FaultInjector::outstanding_allocations() const {
  const Books books;
  return books->blocks.size();
}

std::size_t FaultInjector::outstanding_bytes() const {
  const Books books;
  return books->bytes;
}

std::size_t FaultInjector::peak_bytes() const {
  const Books books;
  return books->peak;
}

std::vector<std::size_t> FaultInjector::allocation_sizes() const {
  const Books books;
  return books->sizes;
}

long FaultInjector::locks_held() const {
  const Books books;
  return books->locks_held;
}

long FaultInjector::locks_alive() const {
  const Books books;
  return books->locks_alive;
}

std::vector<Transfer> FaultInjector::transfers() const {
  const Books books;
  return books->transfers;
}

std::vector<Transfer> FaultInjector::reads() const {
  std::vector<Transfer> found = transfers();
  std::erase_if(found, [](const Transfer& transfer) { return transfer.call != Call::kPread64; });
  return found;
}

std::vector<Transfer> FaultInjector::writes() const {
  std::vector<Transfer> found = transfers();
  std::erase_if(found, [](const Transfer& transfer) { return transfer.call != Call::kPwrite64; });
  return found;
}

std::vector<FileCall> FaultInjector::file_calls() const {
  const Books books;
  return books->file_calls;
}

std::vector<LockCall> FaultInjector::lock_calls() const {
  const Books books;
  return books->lock_calls;
}

void FaultInjector::clear_records() {
  const Books books;
  books->sizes.clear();
  books->transfers.clear();
  books->file_calls.clear();
  books->lock_calls.clear();
}

bool add_faults_from_text(FaultInjector& faults, std::string_view text) {
  (void)faults;  // there is one injector at a time; the parameter says that it must be armed
  while (!text.empty()) {
    const std::optional<Plan> plan = plan_from_text(take_until(text, ','));
    if (!plan.has_value()) {
      return false;
    }
    add_plan(*plan);
  }
  return true;
}

void redirect_fopen64(const char* path, const char* file) {
  g_redirected = path;
  g_redirected_to = file;
}

void leave_mounts_encoded(bool encoded) {
  g_mounts_encoded = encoded;
}

namespace {

// A field of the mount table as the kernel writes it; good until the next call.
char* encoded_field(const char* field) {
  static std::string text;
  text.clear();
  for (; *field != '\0'; ++field) {
    if (std::strchr(" \t\n\\", *field) != nullptr) {
      text += '\\';
      for (const int shift : {6, 3, 0}) {
        text += static_cast<char>('0' + (*field >> shift & 7));
      }
    } else {
      text += *field;
    }
  }
  return text.data();
}

// The file that a path stands for.
const char* redirected(const char* path) {
  return g_redirected != nullptr && std::strcmp(path, g_redirected) == 0 ? g_redirected_to : path;
}

}  // namespace

void trace_calls_to(int fd) {
  g_trace = fd;
}

}  // namespace kvfs_test

using kvfs_test::Call;
using kvfs_test::Verdict;

// NOLINTBEGIN(clang-diagnostic-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void* __wrap_malloc(std::size_t size) {
  return kvfs_test::allocate(Call::kMalloc, size, [&] { return __real_malloc(size); });
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
  std::size_t total = 0;
  if (__builtin_mul_overflow(count, size, &total)) {
    total = std::numeric_limits<std::size_t>::max();
  }
  return kvfs_test::allocate(Call::kCalloc, total, [&] { return __real_calloc(count, size); });
}

void* __wrap_realloc(void* block, std::size_t size) {
  return kvfs_test::reallocate(block, size);
}

void __wrap_free(void* block) {
  (void)kvfs_test::judge(Call::kFree);
  (void)kvfs_test::take_off_the_books(block);
  __real_free(block);
}

int __wrap_pthread_rwlockattr_init(pthread_rwlockattr_t* attribute) {
  return kvfs_test::lock_call(Call::kRwlockattrInit, nullptr,
                              [&] { return __real_pthread_rwlockattr_init(attribute); });
}

int __wrap_pthread_rwlockattr_setpshared(pthread_rwlockattr_t* attribute, int shared) {
  return kvfs_test::lock_call(Call::kRwlockattrSetpshared, nullptr,
                              [&] { return __real_pthread_rwlockattr_setpshared(attribute, shared); });
}

int __wrap_pthread_rwlockattr_destroy(pthread_rwlockattr_t* attribute) {
  return kvfs_test::lock_call(Call::kRwlockattrDestroy, nullptr,
                              [&] { return __real_pthread_rwlockattr_destroy(attribute); });
}

int __wrap_pthread_rwlock_init(pthread_rwlock_t* lock, const pthread_rwlockattr_t* attribute) {
  return kvfs_test::lock_call(Call::kRwlockInit, lock, [&] { return __real_pthread_rwlock_init(lock, attribute); });
}

int __wrap_pthread_rwlock_destroy(pthread_rwlock_t* lock) {
  return kvfs_test::lock_call(Call::kRwlockDestroy, lock, [&] { return __real_pthread_rwlock_destroy(lock); });
}

int __wrap_pthread_rwlock_rdlock(pthread_rwlock_t* lock) {
  return kvfs_test::lock_call(Call::kRwlockRdlock, lock, [&] { return __real_pthread_rwlock_rdlock(lock); });
}

int __wrap_pthread_rwlock_wrlock(pthread_rwlock_t* lock) {
  return kvfs_test::lock_call(Call::kRwlockWrlock, lock, [&] { return __real_pthread_rwlock_wrlock(lock); });
}

int __wrap_pthread_rwlock_unlock(pthread_rwlock_t* lock) {
  return kvfs_test::lock_call(Call::kRwlockUnlock, lock, [&] { return __real_pthread_rwlock_unlock(lock); });
}

ssize_t __wrap_pread64(int fd, void* buffer, std::size_t size, off64_t offset) {
  return kvfs_test::transfer(Call::kPread64, fd, nullptr, size, offset,
                             [&](std::size_t bytes) { return __real_pread64(fd, buffer, bytes, offset); });
}

ssize_t __wrap_pwrite64(int fd, const void* buffer, std::size_t size, off64_t offset) {
  return kvfs_test::transfer(Call::kPwrite64, fd, static_cast<const unsigned char*>(buffer), size, offset,
                             [&](std::size_t bytes) { return __real_pwrite64(fd, buffer, bytes, offset); });
}

int __wrap_flock(int fd, int operation) {
  const Verdict verdict = kvfs_test::judge(Call::kFlock);
  const int result = kvfs_test::file_call(verdict, [&] { return __real_flock(fd, operation); });
  if (verdict.counted) {
    const char* const name = operation == LOCK_SH   ? "LOCK_SH"
                             : operation == LOCK_EX ? "LOCK_EX"
                             : operation == LOCK_UN ? "LOCK_UN"
                                                    : "other";
    kvfs_test::trace("flock %d %s = %d\n", fd, name, result);
    kvfs_test::record_file_call({Call::kFlock, {}, fd, operation});
  }
  return result;
}

int __wrap_fsync(int fd) {
  return kvfs_test::file_call(kvfs_test::judge(Call::kFsync), [&] { return __real_fsync(fd); });
}

int __wrap_open64(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  const Verdict verdict = kvfs_test::judge(Call::kOpen64);
  const int result = kvfs_test::file_call(verdict, [&] { return __real_open64(path, flags, mode); });
  if (verdict.counted) {
    kvfs_test::trace("open64 %s flags=%d = %d\n", path, flags, result);
    kvfs_test::record_file_call({Call::kOpen64, path, result, flags});
  }
  return result;
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
  const Verdict verdict = kvfs_test::judge(Call::kFopen64);
  if (verdict.counted) {
    kvfs_test::trace("fopen64 %s\n", path);
    kvfs_test::record_file_call({Call::kFopen64, path, -1, 0});
  }
  if (verdict.fault.has_value()) {
    errno = verdict.fault->error;
    return nullptr;
  }
  return __real_fopen64(kvfs_test::redirected(path), mode);
}

struct mntent* __wrap_getmntent(FILE* stream) {
  const Verdict verdict = kvfs_test::judge(Call::kGetmntent);
  if (verdict.fault.has_value()) {
    errno = verdict.fault->error;
    return nullptr;
  }
  mntent* const entry = __real_getmntent(stream);
  if (entry != nullptr && kvfs_test::g_mounts_encoded) {
    entry->mnt_fsname = kvfs_test::encoded_field(entry->mnt_fsname);
  }
  return entry;
}
// NOLINTEND(clang-diagnostic-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
