#include "core/user_interface.h"

namespace orlin {

namespace {
SilentUserInterface silentInterface;
UserInterface* currentInterface = &silentInterface;
}  // namespace

UserInterface& Ui() { return *currentInterface; }

void SetUserInterface(UserInterface* ui) { currentInterface = ui ? ui : &silentInterface; }

}  // namespace orlin
