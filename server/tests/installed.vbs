' Creates the installed Tabforge.Main2 the way a late-bound host does and gets its document.
' Prints "document N" (N characters) when it could, "not created" when the class cannot be made.
Option Explicit
Dim o, d, pname, xml
On Error Resume Next
Set d = CreateObject("Scripting.Dictionary")
Set o = CreateObject("Tabforge.Main2")
If Err.Number <> 0 Then
    WScript.Echo "not created " & Hex(Err.Number)
    WScript.Quit 1
End If
pname = "Morvelin"
o.Initialize d, pname
xml = o.GetRibbonXML()
If Err.Number <> 0 Or Left(xml, 9) <> "<customUI" Then
    WScript.Echo "no document " & Hex(Err.Number)
    WScript.Quit 1
End If
WScript.Echo "document " & Len(xml)
