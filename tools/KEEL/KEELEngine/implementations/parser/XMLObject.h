// The owning handle of one component tree: a document.
//
// Owns its root (and so the whole tree) and keeps a count of its own, which
// only the document's own add and remove operations change. Every operation
// that takes a component accepts null and then does nothing (or answers
// null); none reports an error.
//
// Two behaviours are kept on purpose:
//  - SetRoot(component) does not free a root it replaces; whoever held the
//    old root keeps it.
//  - RemoveChildByName(component, name) lowers the document's count by the
//    count of the first match anywhere below `component`, even when that
//    match is deeper than a direct child and so is not removed.
//
// No locking; see KEELComponent.h for the threading rules of trees.
#ifndef TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_XMLOBJECT_H_
#define TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_XMLOBJECT_H_

#include <cstdint>
#include <list>
#include <string>

#include "tools/KEEL/KEELEngine/implementations/parser/KEELAttribute.h"
#include "tools/KEEL/KEELEngine/implementations/parser/KEELComponent.h"

// Results of FindAll: pointers into a tree, not owned.
typedef std::list<KEELComponent*> KEELComponentPtrList;

class XMLObject;
// Documents handed between the readers and the engine; who owns the
// pointers is said where a list is filled (see KEELXmlLoader.h).
typedef std::list<XMLObject*> XMLObjectList;

class XMLObject {
 public:
  // No root, count 0.
  XMLObject();
  // A new root (name, value), count 1.
  XMLObject(const std::string& name, const std::string& value);
  // Null gives an empty document; otherwise a deep copy of that subtree,
  // with its count.
  explicit XMLObject(const KEELComponent* component);
  // Deep copy; a source without a root gives an empty document.
  XMLObject(const XMLObject& other);
  // To itself: nothing. From an empty document: this root is destroyed.
  // Otherwise a deep copy into this root (made first if missing). The count
  // is taken from the source.
  XMLObject& operator=(const XMLObject& other);
  ~XMLObject();

  KEELComponent* GetRoot() const { return m_pRoot; }
  // Stores `root` (ownership passes to the document) and, if not null,
  // takes its count. The old root is not freed.
  void SetRoot(KEELComponent* root);
  // Without a root: count 1 and a default-built root. Then sets the root's
  // name and value.
  void SetRoot(const std::string& name, const std::string& value);

  uint32_t GetCount() const { return m_count; }
  void AddToCount(uint32_t n) { m_count += n; }
  void SubtractFromCount(uint32_t n) { m_count -= n; }

  // The root's name, or empty without a root.
  std::string GetName() const;
  // Without a root: nothing. A count of 0 becomes 1.
  void SetName(const std::string& name);
  // The root's value, or empty without a root.
  std::string GetValue() const;
  // Ignored without a root.
  void SetValue(const std::string& value);

  // Null component: nothing. Null parent: SetRoot(component). Otherwise the
  // component's count is added to the document and the parent takes it.
  void AddChild(KEELComponent* parent, KEELComponent* component);
  // Null parent: SetRoot(name, value). Otherwise the document's count grows
  // by 1 and the parent gets a new child.
  void AddChild(KEELComponent* parent, const std::string& name, const std::string& value);
  // Either null: nothing. Otherwise the component's count is subtracted from
  // the document, then the parent removes it if it is a direct child.
  void RemoveChild(KEELComponent* parent, KEELComponent* component);
  // See the header comment.
  void RemoveChildByName(KEELComponent* component, const std::string& name);

  // component->FindChild(name), or null for a null component.
  KEELComponent* FindChild(const KEELComponent* component, const std::string& name) const;
  // Appends every component named `name` at or below `component`, in
  // pre-order, the given one included.
  void FindAll(KEELComponent* component, const std::string& name,
               KEELComponentPtrList& found) const;
  // The first component named `innerName` below any component named
  // `outerName`, trying the outer ones in pre-order from the root.
  KEELComponent* FindChildUnder(const std::string& outerName, const std::string& innerName) const;

  void AddAttribute(KEELComponent* component, const std::string& name, const std::string& value);
  // Takes ownership unless `component` is null; then the caller keeps it.
  void AddAttribute(KEELComponent* component, KEELAttribute* attribute);
  void RemoveAttribute(KEELComponent* component, const std::string& name);
  void RemoveAttribute(KEELComponent* component, KEELAttribute* attribute);
  KEELAttribute* FindAttribute(const KEELComponent* component, const std::string& name) const;

 private:
  KEELComponent* m_pRoot;  // owned
  uint32_t m_count;
};

#endif  // TOOLS_KEEL_KEELENGINE_IMPLEMENTATIONS_PARSER_XMLOBJECT_H_
