// Running a program allocates nothing: the firewall is opened again by commands that run when there
// is no memory left.

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>

#include <gtest/gtest.h>

#include "linux/execReport.h"
#include "process.h"

extern "C" {
void* __libc_malloc(size_t size);                 // NOLINT: glibc's name of what is replaced here
void* __libc_calloc(size_t count, size_t size);   // NOLINT
void* __libc_realloc(void* memory, size_t size);  // NOLINT
}

namespace {

bool watching = false;  // allocations are counted and refused
long allocations = 0;

void* orRefuse(void* (*allocate)(size_t, void*), size_t size, void* memory) {
  if (watching) {
    ++allocations;
    errno = ENOMEM;
    return nullptr;
  }
  return allocate(size, memory);
}

struct AllocationRow {
  const char* program;
  const char* script;
  int status;
};

}  // namespace

extern "C" {

void* malloc(size_t size) {
  return orRefuse([](size_t bytes, void*) { return __libc_malloc(bytes); }, size, nullptr);
}

void* calloc(size_t count, size_t size) {
  if (watching) return orRefuse(nullptr, 0, nullptr);
  return __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  return orRefuse([](size_t bytes, void* old) { return __libc_realloc(old, bytes); }, size, memory);
}

}  // extern "C"

namespace {

int executeWithoutMemory(const char* path, const char* script) {
  char option[] = "-c";
  std::string first = path;
  std::string last = script;
  char* const argv[] = {first.data(), option, last.data(), nullptr};
  allocations = 0;
  watching = true;
  const int status = TLIBCExecv(path, argv, /*wait=*/1);
  watching = false;
  return status;
}

TEST(Allocation, NoneForARunThatSucceeds) {
  for (const char* program : {"/bin/sh", "/sbin/iptables"}) {
    EXPECT_EQ(0, executeWithoutMemory(program, "echo words; exit 0")) << program;
    EXPECT_EQ(0, allocations) << program;
  }
}

TEST(Allocation, NoneForARunWithoutWaiting) {
  char path[] = "/bin/true";
  char* const argv[] = {path, nullptr};
  allocations = 0;
  watching = true;
  const int status = TLIBCExecv(path, argv, /*wait=*/0);
  watching = false;
  EXPECT_EQ(0, status);
  EXPECT_EQ(0, allocations);
}

// The system log's own function may ask for memory; it does without.
TEST(Allocation, FailureIsToldAndReportedWithoutMemory) {
  const AllocationRow rows[] = {
      {"/bin/sh", "echo words; exit 2", 2},
      {"/bin/sh", "kill -KILL $$", -1},
      {"/nowhere/program", "", -1},
      {"/sbin/iptables", "echo words; exit 2", 2},
  };
  for (const AllocationRow& row : rows) {
    SCOPED_TRACE(row.script);
    TARNExecReportClear();
    EXPECT_EQ(row.status, executeWithoutMemory(row.program, row.script));
    int status = 77;
    EXPECT_EQ(1, TARNExecReportCount());
    EXPECT_EQ(0, TARNExecReportGet(0, &status, nullptr, 0, nullptr, 0));
    EXPECT_EQ(row.status, status);
  }
}

}  // namespace
