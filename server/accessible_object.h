// Any core object that answers the accessibility members by name, as an IAccessible: an element
// of an accessibility tree held in memory (accessibility/accessible_tree.h), handed to the
// registered server the way the word processor hands over its own elements. oleacc's
// AccessibleChildren reaches it through IAccessible, a late-bound caller through IDispatch.
//
// The members passed on are accName, accRole, accState, accChildCount, accChild, accParent,
// accNavigate and accDoDefaultAction; the others are not implemented. A member that fails in the
// core answers E_FAIL (by dispatch: DISP_E_EXCEPTION with the failure's status). Objects that the
// element answers with are handed out as objects of this kind again.
#pragma once

#include <windows.h>

#include <oleacc.h>

#include "platform/object.h"
#include "server/com_object.h"
#include "server/com_ptr.h"

namespace tabforge::com {

class AccessibleObject final : public ComObject<AccessibleObject, IAccessible> {
 public:
  // Nothing for a null element.
  static ComPtr<IAccessible> Create(Ref<Object> element);

  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override;
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT index, LCID locale, ITypeInfo** out) override;
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID locale,
                                          DISPID* ids) override;
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID riid, LCID locale, WORD flags,
                                   DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                                   UINT* argumentError) override;

  HRESULT STDMETHODCALLTYPE get_accParent(IDispatch** parent) override;
  HRESULT STDMETHODCALLTYPE get_accChildCount(LONG* count) override;
  HRESULT STDMETHODCALLTYPE get_accChild(VARIANT child, IDispatch** out) override;
  HRESULT STDMETHODCALLTYPE get_accName(VARIANT child, BSTR* name) override;
  HRESULT STDMETHODCALLTYPE get_accValue(VARIANT child, BSTR* value) override;
  HRESULT STDMETHODCALLTYPE get_accDescription(VARIANT child, BSTR* description) override;
  HRESULT STDMETHODCALLTYPE get_accRole(VARIANT child, VARIANT* role) override;
  HRESULT STDMETHODCALLTYPE get_accState(VARIANT child, VARIANT* state) override;
  HRESULT STDMETHODCALLTYPE get_accHelp(VARIANT child, BSTR* help) override;
  HRESULT STDMETHODCALLTYPE get_accHelpTopic(BSTR* file, VARIANT child, LONG* topic) override;
  HRESULT STDMETHODCALLTYPE get_accKeyboardShortcut(VARIANT child, BSTR* shortcut) override;
  HRESULT STDMETHODCALLTYPE get_accFocus(VARIANT* focus) override;
  HRESULT STDMETHODCALLTYPE get_accSelection(VARIANT* selection) override;
  HRESULT STDMETHODCALLTYPE get_accDefaultAction(VARIANT child, BSTR* action) override;
  HRESULT STDMETHODCALLTYPE accSelect(LONG flags, VARIANT child) override;
  HRESULT STDMETHODCALLTYPE accLocation(LONG* left, LONG* top, LONG* width, LONG* height,
                                        VARIANT child) override;
  HRESULT STDMETHODCALLTYPE accNavigate(LONG direction, VARIANT start, VARIANT* end) override;
  HRESULT STDMETHODCALLTYPE accHitTest(LONG left, LONG top, VARIANT* child) override;
  HRESULT STDMETHODCALLTYPE accDoDefaultAction(VARIANT child) override;
  HRESULT STDMETHODCALLTYPE put_accName(VARIANT child, BSTR name) override;
  HRESULT STDMETHODCALLTYPE put_accValue(VARIANT child, BSTR value) override;

 private:
  friend class ComObject<AccessibleObject, IAccessible>;
  explicit AccessibleObject(Ref<Object> element);
  ~AccessibleObject() = default;

  Ref<Object> element_;
};

}  // namespace tabforge::com
