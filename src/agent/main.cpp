// TervainVMAgent: the guest agent executable.
#include "agent/startup.h"
#include "platform/platform_desktop.h"

int main(int argc, char** argv) {
  return tervain::runAgent(argc, argv, tervain::platformDesktop);
}
