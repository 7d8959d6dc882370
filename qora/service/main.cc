#include "qora/service/loop.h"

int main() {
  return qora::service::runService();
}
