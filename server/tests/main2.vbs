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

Err.Clear
o.NoSuchMember
Check Err.Number = 438, "unknown member err=" & Err.Number
On Error GoTo 0

WScript.Echo passed & " passed, " & failed & " failed"
WScript.Quit failed
