// Feeds arbitrary bytes to the XML loader as text and, when they parse,
// walks the whole tree through the lookup, copy and removal operations,
// checking the counts and lookups against a plain walk of the tree.
#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELXmlLoader.h"
#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

namespace {

// Lookups per input are capped so that big inputs stay fast.
constexpr size_t kMaxNames = 64;

void Check(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

// Every component at or below `root`, in pre-order, without recursion.
std::vector<KEELComponent*> PreOrder(KEELComponent* root) {
  std::vector<KEELComponent*> order;
  std::vector<KEELComponent*> pending;
  if (root != nullptr) {
    pending.push_back(root);
  }
  while (!pending.empty()) {
    KEELComponent* node = pending.back();
    pending.pop_back();
    order.push_back(node);
    const KEELComponentList& children = node->GetChildren();
    for (auto it = children.rbegin(); it != children.rend(); ++it) {
      Check(it->get() != nullptr);
      pending.push_back(it->get());
    }
  }
  return order;
}

// Counts and parent links of a freshly parsed tree hold everywhere.
void CheckStructure(KEELComponent* root) {
  for (KEELComponent* node : PreOrder(root)) {
    uint32_t count = 1;
    for (const auto& child : node->GetChildren()) {
      Check(child->GetParent() == node);
      count += child->GetCount();
    }
    Check(node->GetCount() == count);
    Check(node->IsLeaf() == node->GetChildren().empty());
    for (const auto& attribute : node->GetAttributes()) {
      Check(attribute != nullptr);
      KEELAttribute* first = node->FindAttribute(attribute->GetName());
      Check(first != nullptr && first->GetName() == attribute->GetName());
    }
  }
}

void CheckLookups(XMLObject& document, const std::vector<KEELComponent*>& order) {
  KEELComponent* root = document.GetRoot();
  std::set<std::string> names;
  for (KEELComponent* node : order) {
    if (names.size() >= kMaxNames) {
      break;
    }
    names.insert(node->GetName());
  }
  for (const std::string& name : names) {
    // The first match below the root in pre-order, the root excluded.
    KEELComponent* expected = nullptr;
    size_t matches = 0;
    for (size_t i = 0; i < order.size(); ++i) {
      if (order[i]->GetName() == name) {
        ++matches;
        if (expected == nullptr && i > 0) {
          expected = order[i];
        }
      }
    }
    Check(root->FindChild(name) == expected);
    Check(document.FindChild(root, name) == expected);
    KEELComponentPtrList all;
    document.FindAll(root, name, all);
    Check(all.size() == matches);
    KEELComponent* under = document.FindChildUnder(name, name);
    Check(under == nullptr || under->GetName() == name);
  }
  Check(root->FindChild(std::string("\0", 1)) == nullptr);
}

void CheckCopies(XMLObject& document) {
  XMLObject copy(document);
  Check(copy.GetCount() == document.GetCount());
  const std::vector<KEELComponent*> original = PreOrder(document.GetRoot());
  const std::vector<KEELComponent*> copied = PreOrder(copy.GetRoot());
  Check(original.size() == copied.size());
  for (size_t i = 0; i < original.size(); ++i) {
    Check(original[i] != copied[i]);
    Check(original[i]->GetName() == copied[i]->GetName());
    Check(original[i]->GetValue() == copied[i]->GetValue());
    Check(original[i]->GetCount() == copied[i]->GetCount());
    Check(original[i]->GetAttributes().size() == copied[i]->GetAttributes().size());
  }
  if (original.size() > 1) {
    XMLObject cut(original[1]);
    Check(cut.GetCount() == original[1]->GetCount());
  }
  XMLObject assigned("x", "");
  assigned = document;
  Check(assigned.GetCount() == document.GetCount());
  assigned = XMLObject();
  Check(assigned.GetRoot() == nullptr);
}

// Removes the direct children one by one by name and checks the counts.
void CheckRemovals(XMLObject& document) {
  KEELComponent* root = document.GetRoot();
  while (!root->GetChildren().empty()) {
    const std::string name = root->GetChildren().front()->GetName();
    KEELComponent* found = root->FindChild(name);
    Check(found != nullptr);
    const uint32_t before = root->GetCount();
    const uint32_t documentBefore = document.GetCount();
    const bool direct = found->GetParent() == root;
    const uint32_t removed = found->GetCount();
    document.RemoveChildByName(root, name);
    Check(document.GetCount() == documentBefore - removed);
    if (direct) {
      Check(root->GetCount() == before - removed);
    } else {
      // A deeper first match stays; take the direct child out by pointer.
      Check(root->GetCount() == before);
      root->RemoveChild(root->GetChildren().front().get());
    }
  }
  Check(root->GetCount() == 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  KEELXmlLoader loader;
  XMLObjectList documents;
  XMLObjectList* loaded = loader.Load(text, KEELXmlLoader::kTypeText, documents);
  Check(loader.isValid() == (loaded != nullptr));
  if (loaded == nullptr) {
    Check(documents.empty());
    return 0;
  }
  Check(documents.size() == 1);
  XMLObject* document = documents.front();
  KEELComponent* root = document->GetRoot();
  Check(root != nullptr && root->GetParent() == nullptr);
  const std::vector<KEELComponent*> order = PreOrder(root);
  Check(document->GetCount() == order.size());
  CheckStructure(root);
  CheckLookups(*document, order);
  CheckCopies(*document);
  CheckRemovals(*document);
  return 0;
}
