// The instrumented procedures of Main2: qualified names and line bases, in the class's slot order.
// A failing statement reports the procedure's base plus the statement's number as its line.
#pragma once

#include "tracing/procedure.h"

namespace tabforge::main2_procedures {

using tracing::DefineProcedure;

inline constexpr auto kInitialize = DefineProcedure(u"Main2.Initialize", 100);
inline constexpr auto kRibbon = DefineProcedure(u"Main2.ribbon[Let]", 200);
inline constexpr auto kGetRibbonXML = DefineProcedure(u"Main2.GetRibbonXML", 300);
inline constexpr auto kProductNameChanged = DefineProcedure(u"Main2.productNameChanged", 400);
inline constexpr auto kGetLabel = DefineProcedure(u"Main2.GetLabel[Get]", 500);
inline constexpr auto kGetEnabled = DefineProcedure(u"Main2.GetEnabled[Get]", 600);
inline constexpr auto kGetPressed = DefineProcedure(u"Main2.GetPressed[Get]", 700);
inline constexpr auto kGetScreentip = DefineProcedure(u"Main2.GetScreentip[Get]", 800);
inline constexpr auto kGetImage = DefineProcedure(u"Main2.GetImage[Get]", 900);
inline constexpr auto kLoadImage = DefineProcedure(u"Main2.LoadImage", 1000);
inline constexpr auto kRibbonCallback = DefineProcedure(u"Main2.RibbonCallback", 1100);
inline constexpr auto kEnableGotoQuickBookmark =
    DefineProcedure(u"Main2.EnableGotoQuickBookmark", 1200);
inline constexpr auto kUpdateLexoscopeIcon = DefineProcedure(u"Main2.UpdateLexoscopeIcon", 1300);
inline constexpr auto kEnableToolbar = DefineProcedure(u"Main2.EnableToolbar", 1400);
inline constexpr auto kActivateMorvelinTab = DefineProcedure(u"Main2.activateMorvelinTab", 1500);
inline constexpr auto kInitProductNameSensitiveControl =
    DefineProcedure(u"Main2.initProductNameSensitiveControl", 1600);
inline constexpr auto kAddButton = DefineProcedure(u"Main2.AddButton", 1700);
inline constexpr auto kAddButtonImpl = DefineProcedure(u"Main2.AddButtonImpl", 1800);
inline constexpr auto kGetApplyMorvelinImageIndex =
    DefineProcedure(u"Main2.getApplyMorvelinImageIndex[Get]", 1900);
inline constexpr auto kConvertToId = DefineProcedure(u"Main2.convertToId", 2000);
inline constexpr auto kInvalidateRibbonControl =
    DefineProcedure(u"Main2.InvalidateRibbonControl", 2100);
inline constexpr auto kClickWidget = DefineProcedure(u"Main2.clickWidget", 2200);
inline constexpr auto kGetMorvelinTab = DefineProcedure(u"Main2.getMorvelinTab", 2300);
inline constexpr auto kTabIndex = DefineProcedure(u"Main2.TabIndex", 2400);

}  // namespace tabforge::main2_procedures
