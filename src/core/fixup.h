// Mending after every load and before every save: names, dangling children, empty items, unique
// names and patches.
#pragma once
#include <cstdint>

namespace orlin {

class Collection;
class Item;

// `typeMask` bit t: delete empty items of type t. `afterLoad`: a reader has just run.
void FixUpItems(Collection& collection, uint8_t typeMask, bool afterLoad);
// Makes the item's name unique among items of its type, case ignored ("piano" -> "piano 1").
void EnsureUniqueName(Item& item);

}  // namespace orlin
