// tabforge: what the word processor would get from the library, without the word processor.
#include <cstdio>
#include <string>

#include "platform/portable/portable_platform.h"
#include "ribbon/main2.h"

using namespace tabforge;

int main(int argc, char** argv) {
  std::string name = "Morvelin";
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::string(argv[i]) == "--product-name")
      name = argv[i + 1];
  }
  PortablePlatform platform;
  VbwProtector protector(platform.View());
  protector.vbwInitializeProtector();
  Main2 main2(protector);
  main2.Initialize(nullptr, FromUtf8(name));
  std::printf("product name: %s\nenabled: %d\nquick bookmark: %d\nlabel templates: %d\n",
              ToUtf8(main2.productName()).c_str(), static_cast<int>(main2.enabled()),
              static_cast<int>(main2.quickBookmarkEnabled()),
              main2.productNameSensitiveControls()->Count());
  return 0;
}
