// SPDX-License-Identifier: BSD-2-Clause
#include "qora/base/error_text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace qora {
namespace {

struct ErrorName {
  int32_t value;
  const char* name;
};

// Sorted by value. The gaps (15, 26, 40, 41 and others) stay: what filters our logs knows these as
// "Unknown".
constexpr ErrorName kErrorNames[] = {
    {0, "Success"},        {1, "EPERM"},          {2, "ENOENT"},
    {3, "ESRCH"},          {4, "EINTR"},          {5, "EIO"},
    {6, "ENXIO"},          {7, "E2BIG"},          {8, "ENOEXEC"},
    {9, "EBADF"},          {10, "ECHILD"},        {11, "EAGAIN"},
    {12, "ENOMEM"},        {13, "EACCES"},        {14, "EFAULT"},
    {16, "EBUSY"},         {17, "EEXIST"},        {18, "EXDEV"},
    {19, "ENODEV"},        {20, "ENOTDIR"},       {21, "EISDIR"},
    {22, "EINVAL"},        {23, "ENFILE"},        {24, "EMFILE"},
    {25, "ENOTTY"},        {27, "EFBIG"},         {28, "ENOSPC"},
    {29, "ESPIPE"},        {30, "EROFS"},         {31, "EMLINK"},
    {32, "EPIPE"},         {33, "EDOM"},          {34, "ERANGE"},
    {35, "EDEADLK"},       {36, "ENAMETOOLONG"},  {37, "ENOLCK"},
    {38, "ENOSYS"},        {39, "ENOTEMPTY"},     {42, "ENOMSG"},
    {52, "EBADE"},         {56, "EBADRQC"},       {57, "EBADSLT"},
    {70, "ECOMM"},         {71, "EPROTO"},        {74, "EBADMSG"},
    {84, "EILSEQ"},        {88, "ENOTSOCK"},      {95, "ENOTSUP"},
    {98, "EADDRINUSE"},    {99, "EADDRNOTAVAIL"}, {103, "ECONNABORTED"},
    {104, "ECONNRESET"},   {106, "EISCONN"},      {110, "ETIMEDOUT"},
    {111, "ECONNREFUSED"}, {115, "EINPROGRESS"},
};

constexpr bool precedes(const ErrorName& left, const ErrorName& right) {
  return left.value < right.value;
}
static_assert(std::is_sorted(std::begin(kErrorNames), std::end(kErrorNames), precedes));

}  // namespace

const char* errorText(int32_t error) {
  return error == 0 ? "No error" : strerror(error);
}
const char* lastErrorText() {
  return errorText(errno);
}

const char* errorName(int32_t error) {
  const auto* row = std::lower_bound(std::begin(kErrorNames), std::end(kErrorNames),
                                     ErrorName{error, nullptr}, precedes);
  return row != std::end(kErrorNames) && row->value == error ? row->name : "Unknown";
}
const char* lastErrorName() {
  return errorName(errno);
}

}  // namespace qora
