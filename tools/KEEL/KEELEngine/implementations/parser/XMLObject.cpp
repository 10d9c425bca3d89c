#include "tools/KEEL/KEELEngine/implementations/parser/XMLObject.h"

XMLObject::XMLObject() : m_pRoot(nullptr), m_count(0) {}

XMLObject::XMLObject(const std::string& name, const std::string& value)
    : m_pRoot(new KEELComponent(name, value)), m_count(1) {}

XMLObject::XMLObject(const KEELComponent* component) : m_pRoot(nullptr), m_count(0) {
  if (component != nullptr) {
    m_pRoot = new KEELComponent(*component);
    m_count = component->GetCount();
  }
}

XMLObject::XMLObject(const XMLObject& other) : m_pRoot(nullptr), m_count(other.m_count) {
  if (other.m_pRoot != nullptr) {
    m_pRoot = new KEELComponent(*other.m_pRoot);
  }
}

XMLObject& XMLObject::operator=(const XMLObject& other) {
  if (this == &other) {
    return *this;
  }
  if (other.m_pRoot == nullptr) {
    delete m_pRoot;
    m_pRoot = nullptr;
  } else {
    if (m_pRoot == nullptr) {
      m_pRoot = new KEELComponent();
    }
    *m_pRoot = *other.m_pRoot;
  }
  m_count = other.m_count;
  return *this;
}

XMLObject::~XMLObject() {
  delete m_pRoot;
}

void XMLObject::SetRoot(KEELComponent* root) {
  m_pRoot = root;
  if (root != nullptr) {
    m_count = root->GetCount();
  }
}

void XMLObject::SetRoot(const std::string& name, const std::string& value) {
  if (m_pRoot == nullptr) {
    m_count = 1;
    m_pRoot = new KEELComponent();
  }
  m_pRoot->SetName(name);
  m_pRoot->SetValue(value);
}

std::string XMLObject::GetName() const {
  return m_pRoot != nullptr ? m_pRoot->GetName() : std::string();
}

void XMLObject::SetName(const std::string& name) {
  if (m_pRoot == nullptr) {
    return;
  }
  if (m_count == 0) {
    m_count = 1;
  }
  m_pRoot->SetName(name);
}

std::string XMLObject::GetValue() const {
  return m_pRoot != nullptr ? m_pRoot->GetValue() : std::string();
}

void XMLObject::SetValue(const std::string& value) {
  if (m_pRoot != nullptr) {
    m_pRoot->SetValue(value);
  }
}

void XMLObject::AddChild(KEELComponent* parent, KEELComponent* component) {
  if (component == nullptr) {
    return;
  }
  if (parent == nullptr) {
    SetRoot(component);
    return;
  }
  m_count += component->GetCount();
  parent->AddChild(component);
}

void XMLObject::AddChild(KEELComponent* parent, const std::string& name, const std::string& value) {
  if (parent == nullptr) {
    SetRoot(name, value);
    return;
  }
  m_count += 1;
  parent->AddChild(name, value);
}

void XMLObject::RemoveChild(KEELComponent* parent, KEELComponent* component) {
  if (parent == nullptr || component == nullptr) {
    return;
  }
  m_count -= component->GetCount();
  parent->RemoveChild(component);
}

void XMLObject::RemoveChildByName(KEELComponent* component, const std::string& name) {
  if (component == nullptr) {
    return;
  }
  KEELComponent* found = component->FindChild(name);
  if (found == nullptr) {
    return;
  }
  m_count -= found->GetCount();
  component->RemoveChild(found);
}

KEELComponent* XMLObject::FindChild(const KEELComponent* component, const std::string& name) const {
  return component != nullptr ? component->FindChild(name) : nullptr;
}

void XMLObject::FindAll(KEELComponent* component, const std::string& name,
                        KEELComponentPtrList& found) const {
  if (component == nullptr) {
    return;
  }
  if (component->GetName() == name) {
    found.push_back(component);
  }
  for (const auto& child : component->GetChildren()) {
    FindAll(child.get(), name, found);
  }
}

KEELComponent* XMLObject::FindChildUnder(const std::string& outerName,
                                         const std::string& innerName) const {
  KEELComponentPtrList outers;
  FindAll(m_pRoot, outerName, outers);
  for (KEELComponent* outer : outers) {
    KEELComponent* inner = outer->FindChild(innerName);
    if (inner != nullptr) {
      return inner;
    }
  }
  return nullptr;
}

void XMLObject::AddAttribute(KEELComponent* component, const std::string& name,
                             const std::string& value) {
  if (component != nullptr) {
    component->AddAttribute(name, value);
  }
}

void XMLObject::AddAttribute(KEELComponent* component, KEELAttribute* attribute) {
  if (component != nullptr) {
    component->AddAttribute(attribute);
  }
}

void XMLObject::RemoveAttribute(KEELComponent* component, const std::string& name) {
  if (component != nullptr) {
    component->RemoveAttribute(name);
  }
}

void XMLObject::RemoveAttribute(KEELComponent* component, KEELAttribute* attribute) {
  if (component != nullptr) {
    component->RemoveAttribute(attribute);
  }
}

KEELAttribute* XMLObject::FindAttribute(const KEELComponent* component,
                                        const std::string& name) const {
  return component != nullptr ? component->FindAttribute(name) : nullptr;
}
