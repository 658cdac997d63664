# Installs the provider on Windows as the installer would, for tests there: scripts\windows-register.ps1 FOLDER [DEVICE-LIBRARY]
# As administrator. FOLDER holds TalvikCSP.dll, and TalvikDSCLibrary.dll unless that is given.
param([Parameter(Mandatory)] [string] $Folder, [string] $DeviceLibrary = "$Folder\TalvikDSCLibrary.dll")
$ErrorActionPreference = 'Stop'

$system = "$env:SystemRoot\System32"
Copy-Item -Force "$Folder\TalvikCSP.dll" $system
Copy-Item -Force $DeviceLibrary "$system\TalvikDSCLibrary.dll"

$entry = 'HKLM:\Software\Microsoft\Cryptography\Defaults\Provider\Talvik Cryptographic Provider CSP'
New-Item -Force $entry | Out-Null
Set-ItemProperty $entry 'Image Path' 'TalvikCSP.dll'
Set-ItemProperty $entry 'Type' 1 -Type DWord
Set-ItemProperty $entry 'Signature' ([byte[]](0, 0, 0, 0)) -Type Binary

$registration = Start-Process -Wait -PassThru "$system\regsvr32.exe" "/s $system\TalvikCSP.dll"
if ($registration.ExitCode -ne 0) { throw "regsvr32 answered $($registration.ExitCode)" }
