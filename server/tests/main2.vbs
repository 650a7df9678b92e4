' Drives the registered Tabforge.Main2 through late binding, the way the add-in's template does.
Option Explicit
Dim passed, failed
passed = 0 : failed = 0

Sub Check(ok, what)
    If ok Then
        passed = passed + 1
    Else
        failed = failed + 1
        WScript.Echo "FAIL: " & what
    End If
End Sub

Dim o, d, pname, x
Set o = CreateObject("Tabforge.Main2")
Set d = CreateObject("Scripting.Dictionary")

On Error Resume Next
' A plain variable arrives as VT_BYREF|VT_VARIANT; the server binds it to the typed parameter.
Err.Clear
pname = "Morvelin"
o.Initialize d, pname
Check Err.Number = 0, "Initialize with variables err=" & Hex(Err.Number) & " " & Err.Description
Check pname = "Morvelin", "Initialize leaves the product name as it was"

Err.Clear
o.Initialize (d), ("Morvelin")
Check Err.Number = 0, "Initialize with values err=" & Hex(Err.Number) & " " & Err.Description

' The dictionary has no ribbon interface: the member fails inside and still returns success.
Err.Clear
Set o.ribbon = d
Check Err.Number = 0, "Set o.ribbon err=" & Hex(Err.Number) & " " & Err.Description

Err.Clear
Set o.ribbon = Nothing
Check Err.Number = 0, "Set o.ribbon = Nothing err=" & Hex(Err.Number)

Err.Clear
x = o.ribbon
Check Err.Number <> 0, "reading ribbon fails"

' Every member the way the template's macros call them: variables for the [in, out] parameters.
Dim r, id, flag, xml, pic
Set r = CreateObject("Scripting.Dictionary")
pname = "Morvelin"
o.Initialize d, pname

Err.Clear
xml = o.GetRibbonXML()
Check Err.Number = 0 And Left(xml, 9) = "<customUI", "GetRibbonXML err=" & Hex(Err.Number)

id = "MVN4"
Err.Clear
x = o.GetLabel(id)
Check Err.Number = 0 And x = "About Morvelin / Login to Morvelin", "GetLabel gives '" & x & "'"
Check id = "MVN4", "GetLabel leaves the id as it was"

id = "MVN16"
x = o.GetEnabled(id)
Check x = False, "GetEnabled MVN16 before a quick bookmark"
id = "MVN23"
x = o.GetPressed(id)
Check x = False, "GetPressed MVN23"
x = o.GetScreentip(id)
Check x = "Turn Lexoscope on", "GetScreentip gives '" & x & "'"

' The dictionary has no getToolbarIconBits, so there is no picture, and still no failure.
id = "MVN0"
Err.Clear
Set pic = o.GetImage(id)
Check Err.Number = 0 And pic Is Nothing, "GetImage err=" & Hex(Err.Number)
id = "2"
Set pic = o.LoadImage(id)
Check Err.Number = 0 And pic Is Nothing, "LoadImage err=" & Hex(Err.Number)

flag = True
Err.Clear
o.EnableGotoQuickBookmark flag
id = "MVN16"
Check o.GetEnabled(id) = True, "EnableGotoQuickBookmark enables MVN16"
o.UpdateLexoscopeIcon flag
id = "MVN23"
Check o.GetPressed(id) = True, "UpdateLexoscopeIcon presses MVN23"
flag = False
o.EnableToolbar flag
id = "MVN5"
Check o.GetEnabled(id) = False, "EnableToolbar False disables MVN5"
Check Err.Number = 0, "state changes err=" & Hex(Err.Number)

pname = "Quill"
o.productNameChanged pname
id = "MVN1"
Check o.GetLabel(id) = "Configure Quill", "productNameChanged renames the labels"

' The dictionary has no Run: the call fails inside and returns success.
id = "MVN5"
Err.Clear
o.RibbonCallback id, flag
Check Err.Number = 0, "RibbonCallback err=" & Hex(Err.Number)
o.activateMorvelinTab r
Check Err.Number = 0, "activateMorvelinTab err=" & Hex(Err.Number)

Err.Clear
o.NoSuchMember
Check Err.Number = 438, "unknown member err=" & Err.Number
On Error GoTo 0

WScript.Echo passed & " passed, " & failed & " failed"
WScript.Quit failed
