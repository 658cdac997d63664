-- An upgrade also replaces a package of the same version (512), and keeps the choice of features (1).
DELETE FROM `Upgrade` WHERE `ActionProperty` = 'WIX_UPGRADE_DETECTED'
INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMax`, `Attributes`, `ActionProperty`) VALUES ('{0D6F2B3C-5B0E-4E55-8D7C-2F1B8C1E9A40}', '@VERSION@', 513, 'WIX_UPGRADE_DETECTED')

-- The older version goes within the transaction: should the new one fail, the older one comes back. Not every platform does
-- that; so what can fail, the registration with CNG, is tried with the older version first, before anything is changed.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RestoreRegistration', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('TryRegistration', 3106, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]TalvikCSP.dll"')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RestoreRegistration', '&Provider=3 AND WIX_UPGRADE_DETECTED AND INSTALLEDPROVIDER AND DEVICELIBRARY', 1510)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('TryRegistration', '&Provider=3 AND WIX_UPGRADE_DETECTED AND INSTALLEDPROVIDER AND DEVICELIBRARY', 1520)
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('InstallExecute', 1530)
UPDATE `InstallExecuteSequence` SET `Sequence` = 1540 WHERE `Action` = 'RemoveExistingProducts'

-- Not every platform migrates the choice of features: what the older version has is looked for by its components.
CREATE TABLE `CompLocator` (`Signature_` CHAR(72) NOT NULL, `ComponentId` CHAR(38) NOT NULL, `Type` INT PRIMARY KEY `Signature_`)
INSERT INTO `CompLocator` (`Signature_`, `ComponentId`, `Type`) VALUES ('InstalledProvider', '{0D6F2B3C-5B0E-4E55-8D7C-2F1B8C1E9A41}', 1)
INSERT INTO `CompLocator` (`Signature_`, `ComponentId`, `Type`) VALUES ('InstalledTool', '{0D6F2B3C-5B0E-4E55-8D7C-2F1B8C1E9A43}', 1)
INSERT INTO `CompLocator` (`Signature_`, `ComponentId`, `Type`) VALUES ('InstalledWatch', '{0D6F2B3C-5B0E-4E55-8D7C-2F1B8C1E9A44}', 1)
INSERT INTO `CompLocator` (`Signature_`, `ComponentId`, `Type`) VALUES ('InstalledVirtualToken', '{0D6F2B3C-5B0E-4E55-8D7C-2F1B8C1E9A42}', 1)
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('InstalledProvider', 'TalvikCSP.dll')
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('InstalledTool', 'talvik.exe')
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('InstalledWatch', 'talvik-watch.exe')
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('InstalledVirtualToken', 'TalvikDSCLibrary.dll')
CREATE TABLE `Condition` (`Feature_` CHAR(38) NOT NULL, `Level` INT NOT NULL, `Condition` CHAR(255) PRIMARY KEY `Feature_`, `Level`)
INSERT INTO `Condition` (`Feature_`, `Level`, `Condition`) VALUES ('Tools', 1, 'WIX_UPGRADE_DETECTED AND INSTALLEDTOOL')
INSERT INTO `Condition` (`Feature_`, `Level`, `Condition`) VALUES ('Watch', 1, 'WIX_UPGRADE_DETECTED AND INSTALLEDWATCH')
INSERT INTO `Condition` (`Feature_`, `Level`, `Condition`) VALUES ('VirtualToken', 1, 'WIX_UPGRADE_DETECTED AND INSTALLEDVIRTUALTOKEN')

-- Without versions, a file that is already there would count as newer than ours.
UPDATE `File` SET `Version` = '@TalvikCSP.dll@' WHERE `File` = 'TalvikCSP.dll'
UPDATE `File` SET `Version` = '@TalvikDSCLibrary.dll@' WHERE `File` = 'TalvikDSCLibrary.dll'
UPDATE `File` SET `Version` = '@talvik.exe@' WHERE `File` = 'talvik.exe'
UPDATE `File` SET `Version` = '@talvik-watch.exe@' WHERE `File` = 'talvik_watch.exe'

-- DEVICELIBRARY: the device library in the system folder. On the command line it says that there is one elsewhere.
CREATE TABLE `DrLocator` (`Signature_` CHAR(72) NOT NULL, `Parent` CHAR(72), `Path` CHAR(255), `Depth` INT PRIMARY KEY `Signature_`, `Parent`, `Path`)
INSERT INTO `Signature` (`Signature`, `FileName`) VALUES ('DeviceLibrary', 'TalvikDSCLibrary.dll')
INSERT INTO `DrLocator` (`Signature_`, `Path`, `Depth`) VALUES ('DeviceLibrary', '[System64Folder]', 0)
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('DEVICELIBRARY', 'DeviceLibrary')
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('INSTALLEDPROVIDER', 'InstalledProvider')
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('INSTALLEDTOOL', 'InstalledTool')
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('INSTALLEDWATCH', 'InstalledWatch')
INSERT INTO `AppSearch` (`Property`, `Signature_`) VALUES ('INSTALLEDVIRTUALTOKEN', 'InstalledVirtualToken')
UPDATE `Property` SET `Value` = 'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;DEVICELIBRARY' WHERE `Property` = 'SecureCustomProperties'
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('AppSearch', 50)

-- The provider cannot be loaded without a device library, hence not be registered: better to say so than to fail.
INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('NoDeviceLibrary', 19, 'TalvikDSCLibrary.dll is not in the system folder. Install the software of the token first, or add the virtual token with ADDLOCAL=Provider,VirtualToken. Nothing was changed.')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('NoDeviceLibrary', '&Provider=3 AND NOT &VirtualToken=3 AND NOT !VirtualToken=3 AND NOT DEVICELIBRARY', 1210)
INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('OtherDeviceLibrary', 19, 'The system folder holds a TalvikDSCLibrary.dll already: [DEVICELIBRARY]. The virtual token does not replace it. Nothing was changed.')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('OtherDeviceLibrary', '&VirtualToken=3 AND NOT !VirtualToken=3 AND DEVICELIBRARY AND NOT WIX_UPGRADE_DETECTED', 1220)

INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('LastDeviceLibrary', 19, 'The update would take away the virtual token, the only TalvikDSCLibrary.dll in the system folder. Keep it with ADDLOCAL=Provider,VirtualToken, or remove the installed version and install the software of the token first. Nothing was changed.')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('LastDeviceLibrary', '&Provider=3 AND NOT &VirtualToken=3 AND WIX_UPGRADE_DETECTED AND INSTALLEDVIRTUALTOKEN', 1215)

-- CNG: the provider registers itself, and is registered anew when an uninstallation is rolled back. 34: a command line,
-- +1024 deferred, +2048 with the installer's rights, +256 on rollback, +64 whatever it answers.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Register', 3106, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RollbackRegister', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /s /u "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Unregister', 3170, 'System64Folder', '"[System64Folder]regsvr32.exe" /s /u "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RollbackUnregister', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]TalvikCSP.dll"')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RollbackUnregister', '&Provider=2', 2190)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Unregister', '&Provider=2', 2200)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RollbackRegister', '&Provider=3 AND NOT Installed', 5590)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Register', '&Provider=3 OR REINSTALL', 5600)

-- A provider whose device library is gone can no longer unregister itself: its entry goes all the same.
INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Component_`) VALUES ('CngEntry', 2, 'SYSTEM\CurrentControlSet\Control\Cryptography\Providers\Talvik Cryptographic Provider CSP', '-', 'Provider')

-- wixl takes the mark of a binary value for text.
UPDATE `Registry` SET `Value` = '#x00000000' WHERE `Name` = 'Signature'

-- The maker's folder goes with the last that is in it.
INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('DocumentsFolder', 'Documents')
INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('TalvikFolder', 'Documents')
INSERT INTO `CreateFolder` (`Directory_`, `Component_`) VALUES ('QuorvelFolder', 'Documents')
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('RemoveFolders', 3600)
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('CreateFolders', 3700)

-- The tool is found by its name, in sessions that begin afterwards: appended (~) to the system's (*) PATH, taken away (-)
-- with the tool.
CREATE TABLE `Environment` (`Environment` CHAR(72) NOT NULL, `Name` CHAR(255) NOT NULL LOCALIZABLE, `Value` CHAR(255) LOCALIZABLE, `Component_` CHAR(72) NOT NULL PRIMARY KEY `Environment`)
INSERT INTO `Environment` (`Environment`, `Name`, `Value`, `Component_`) VALUES ('Path', '=-*PATH', '[~];[TalvikFolder]', 'Tool')
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('RemoveEnvironmentStrings', 3300)
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('WriteEnvironmentStrings', 5200)
