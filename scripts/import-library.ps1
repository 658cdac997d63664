# Makes an import library out of a DLL: scripts\import-library.ps1 DLL OUTPUT.lib
# For a "Developer PowerShell", which has dumpbin and lib. What the DLL exports by number alone is left out.
param([Parameter(Mandatory)] [string] $Dll, [Parameter(Mandatory)] [string] $Output)
$ErrorActionPreference = 'Stop'

$listed = & dumpbin /nologo /exports $Dll
if ($LASTEXITCODE -ne 0) { throw "dumpbin cannot read $Dll" }
# "ordinal hint RVA name", the name followed by " = ..." where there is debugging information.
$names = $listed | Select-String '^\s+\d+\s+[0-9A-F]+\s+[0-9A-F]{8}\s+(\S+)' | ForEach-Object { $_.Matches[0].Groups[1].Value }
if ($names.Count -lt 24) { throw "$Dll exports $($names.Count) names; a device library has 24 operations" }

New-Item -ItemType Directory -Force (Split-Path $Output) | Out-Null
$definition = [IO.Path]::ChangeExtension($Output, '.def')
@("LIBRARY $([IO.Path]::GetFileName($Dll))", 'EXPORTS') + ($names | ForEach-Object { "    $_" }) |
    Set-Content -Encoding ascii $definition
& lib /nologo /machine:x64 "/def:$definition" "/out:$Output"
if ($LASTEXITCODE -ne 0) { throw 'lib cannot make the import library' }
