#include "service/loop.h"

int main() {
  return qora::service::runService();
}
