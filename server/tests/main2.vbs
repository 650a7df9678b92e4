' Drives the registered Tabforge.Main2 as a script host does: variables go by reference, values in
' parentheses by value, `ribbon` takes Let and Set, and what the server refuses reaches Err.
' Prints "not created" when the class cannot be made (the installation test runs it as its client
' of each bitness), and at the end how many checks passed and failed.
Option Explicit
Dim passed, failed, o, d, pname, id, x
passed = 0 : failed = 0

Sub Check(ok, what)
    If ok Then passed = passed + 1 Else failed = failed + 1 : WScript.Echo "FAIL: " & what
End Sub

On Error Resume Next
Set o = CreateObject("Tabforge.Main2")
If Err.Number <> 0 Then
    WScript.Echo "not created " & Hex(Err.Number)
    WScript.Quit 1
End If
Set d = CreateObject("Scripting.Dictionary")
pname = "Morvelin"
o.Initialize d, pname
Check Err.Number = 0 And pname = "Morvelin", "Initialize with variables err=" & Hex(Err.Number)
x = o.GetRibbonXML()
Check Err.Number = 0 And Left(x, 9) = "<customUI", "GetRibbonXML err=" & Hex(Err.Number)
o.Initialize (d), ("Morvelin")
Check Err.Number = 0, "Initialize with values err=" & Hex(Err.Number)
id = "MVN4"
x = o.GetLabel(id)
Check x = "About Morvelin / Login to Morvelin" And id = "MVN4", "GetLabel gives '" & x & "'"

' The dictionary has no ribbon interface: the member fails inside and the call succeeds.
o.ribbon = d
Check Err.Number = 0, "o.ribbon = d err=" & Hex(Err.Number)
Set o.ribbon = d
Check Err.Number = 0, "Set o.ribbon = d err=" & Hex(Err.Number)
Set o.ribbon = Nothing
Check Err.Number = 0, "Set o.ribbon = Nothing err=" & Hex(Err.Number)
x = o.ribbon
Check Err.Number = 438, "reading ribbon err=" & Err.Number
Err.Clear

' The dictionary has no Run either: the macro fails inside and the call succeeds.
id = "MVN5"
x = False
o.RibbonCallback id, x
Check Err.Number = 0, "RibbonCallback err=" & Hex(Err.Number)
On Error GoTo 0

WScript.Echo passed & " passed, " & failed & " failed"
WScript.Quit failed
