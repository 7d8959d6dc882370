// SPDX-License-Identifier: BSD-2-Clause
#include "qora/service/loop.h"

int main() {
  return qora::service::runService();
}
