// One element of a generic XML tree: a name, a text value, an ordered list of
// attributes and an ordered list of children.
//
// There are no typed schema classes: what an element means is decided by the
// code that looks it up by its exact, case-sensitive name.
//
// Ownership. A component owns its children and its attributes, held as
// std::unique_ptr in std::list, so every pointer handed out by a lookup
// stays valid until that very entry is removed or its owner destroyed;
// nobody frees such a pointer. Callers walk the lists directly:
//
//   for (const auto& child : component->GetChildren()) {
//     KEELComponent* pChild = child.get();   // or child->GetName() ...
//   }
//   for (const auto& attribute : component->GetAttributes()) {
//     attribute->GetName(); attribute->GetValue();
//   }
//
// The lists are handed out const, so only this class changes their shape and
// the counts stay right; the components and attributes in them may be
// changed through the pointers.
//
// Counts. Every component keeps the number of components in its subtree,
// itself included; adding or removing a subtree corrects the count of the
// parent and every ancestor along the parent links. A default-built
// component has count 0 and is refused as a child.
//
// Copies are deep (new children, new attributes, same counts and leaf flag)
// but parent links are copied as they stand: the root of a copy keeps the
// source's parent and each inner node still points at its parent in the
// source. Copies are therefore read-only by convention; adding to or
// removing from one would walk those stale links.
//
// Recursion in copying, destruction and lookups goes as deep as the tree;
// parsed trees are bounded by libxml2's depth limit.
//
// No locking: a tree is built by one thread; several threads may read one
// tree at once, and whoever changes a shared tree holds its lock.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELCOMPONENT_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELCOMPONENT_H_

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "tools/KEEL/KEELEngine/implementations/parser/KEELAttribute.h"

class KEELComponent;

// The children of a component, in document order, owned.
typedef std::list<std::unique_ptr<KEELComponent>> KEELComponentList;
// The attributes of a component, in document order, owned.
typedef std::list<std::unique_ptr<KEELAttribute>> KEELAttributeList;

class KEELComponent {
 public:
  // Empty strings, leaf, count 0.
  KEELComponent();
  // Leaf, count 1.
  KEELComponent(const std::string& name, const std::string& value);
  // Deep copy; see the header comment for parent links.
  KEELComponent(const KEELComponent& other);
  // Deep copy after destroying this component's children and attributes.
  // Assigning a component to itself does nothing.
  KEELComponent& operator=(const KEELComponent& other);
  ~KEELComponent();

  std::string GetName() const { return m_name; }
  void SetName(const std::string& name) { m_name = name; }
  std::string GetValue() const { return m_value; }
  void SetValue(const std::string& value) { m_value = value; }
  // Appends `text` to the value in place; the tree builder grows values
  // chunk by chunk with it.
  void AppendToValue(const std::string& text) { m_value += text; }

  // True from construction until the first accepted child; never set back.
  bool IsLeaf() const { return m_isLeaf; }
  uint32_t GetCount() const { return m_count; }
  KEELComponent* GetParent() const { return m_pParent; }

  const KEELComponentList& GetChildren() const { return m_children; }
  const KEELAttributeList& GetAttributes() const { return m_attributes; }

  // Builds a component (name, value) and adds it.
  void AddChild(const std::string& name, const std::string& value);
  // Takes ownership of `child` and appends it, unless it is null or its
  // count is 0: then nothing happens and the caller keeps it.
  void AddChild(KEELComponent* child);
  // Destroys `child` if it is one of this component's direct children;
  // otherwise (null, deeper, foreign) nothing happens.
  void RemoveChild(KEELComponent* child);
  // FindChild(name), then RemoveChild on this component: only a direct
  // child that is also the first match goes.
  void RemoveChildByName(const std::string& name);
  // The first component of exactly `name` below this one, depth first in
  // pre-order; this component itself is never compared. Null if none.
  KEELComponent* FindChild(const std::string& name) const;

  void AddAttribute(const std::string& name, const std::string& value);
  // Takes ownership and appends; null is ignored. Names need not be unique.
  void AddAttribute(KEELAttribute* attribute);
  // Destroys the first attribute of exactly `name`, if any.
  void RemoveAttribute(const std::string& name);
  // Destroys that very attribute if this component holds it.
  void RemoveAttribute(KEELAttribute* attribute);
  // The first attribute of exactly `name`, or null.
  KEELAttribute* FindAttribute(const std::string& name) const;
  // The value of that attribute, or empty when there is none.
  std::string GetAttributeValue(const std::string& name) const;

  void ClearAttributes();
  void ClearChildren();

  // Adjust this component's count and that of every ancestor, in unsigned
  // arithmetic.
  void AddToCount(uint32_t n);
  void SubtractFromCount(uint32_t n);

  // True when name, value, leaf flag or parent differ, or when the child or
  // attribute lists differ in length or in any pointer. Pointers are
  // compared, not contents.
  bool operator!=(const KEELComponent& other) const;

 private:
  void CopyFrom(const KEELComponent& other);

  bool m_isLeaf;
  std::string m_name;
  std::string m_value;
  KEELComponent* m_pParent;  // not owned; null at a root
  uint32_t m_count;
  KEELComponentList m_children;
  KEELAttributeList m_attributes;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_KEELCOMPONENT_H_
