-- An upgrade also replaces a package of the same version (512), and keeps the choice of features (1).
DELETE FROM `Upgrade` WHERE `ActionProperty` = 'WIX_UPGRADE_DETECTED'
INSERT INTO `Upgrade` (`UpgradeCode`, `VersionMax`, `Attributes`, `ActionProperty`) VALUES ('{0D6F2B3C-5B0E-4E55-8D7C-2F1B8C1E9A40}', '@VERSION@', 513, 'WIX_UPGRADE_DETECTED')

-- The older version goes within the transaction: should the new one fail, the older one comes back.
UPDATE `InstallExecuteSequence` SET `Sequence` = 1510 WHERE `Action` = 'RemoveExistingProducts'

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
UPDATE `Property` SET `Value` = 'WIX_DOWNGRADE_DETECTED;WIX_UPGRADE_DETECTED;DEVICELIBRARY' WHERE `Property` = 'SecureCustomProperties'
INSERT INTO `InstallExecuteSequence` (`Action`, `Sequence`) VALUES ('AppSearch', 50)

-- The provider cannot be loaded without a device library, hence not be registered: better to say so than to fail.
INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('NoDeviceLibrary', 19, 'TalvikDSCLibrary.dll is not in the system folder. Install the software of the token first, or add the virtual token with ADDLOCAL=Provider,VirtualToken. Nothing was changed.')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('NoDeviceLibrary', '&Provider=3 AND NOT &VirtualToken=3 AND NOT !VirtualToken=3 AND NOT DEVICELIBRARY', 1210)
INSERT INTO `CustomAction` (`Action`, `Type`, `Target`) VALUES ('OtherDeviceLibrary', 19, 'The system folder holds a TalvikDSCLibrary.dll already: [DEVICELIBRARY]. The virtual token does not replace it. Nothing was changed.')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('OtherDeviceLibrary', '&VirtualToken=3 AND NOT !VirtualToken=3 AND DEVICELIBRARY AND NOT WIX_UPGRADE_DETECTED', 1220)

-- CNG: the provider registers itself, and is registered anew when an uninstallation is rolled back. 34: a command line,
-- +1024 deferred, +2048 with the installer's rights, +256 on rollback, +64 whatever it answers.
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Register', 3106, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RollbackRegister', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /s /u "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('Unregister', 3170, 'System64Folder', '"[System64Folder]regsvr32.exe" /s /u "[System64Folder]TalvikCSP.dll"')
INSERT INTO `CustomAction` (`Action`, `Type`, `Source`, `Target`) VALUES ('RollbackUnregister', 3426, 'System64Folder', '"[System64Folder]regsvr32.exe" /s "[System64Folder]TalvikCSP.dll"')
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RollbackUnregister', '&Provider=2', 2190)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Unregister', '&Provider=2', 2200)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('RollbackRegister', '&Provider=3 AND NOT Installed', 5590)
INSERT INTO `InstallExecuteSequence` (`Action`, `Condition`, `Sequence`) VALUES ('Register', '&Provider=3', 5600)

-- A provider whose device library is gone can no longer unregister itself: its entry goes all the same.
INSERT INTO `Registry` (`Registry`, `Root`, `Key`, `Name`, `Component_`) VALUES ('CngEntry', 2, 'SYSTEM\CurrentControlSet\Control\Cryptography\Providers\Talvik Cryptographic Provider CSP', '-', 'Provider')

-- wixl takes the mark of a binary value for text.
UPDATE `Registry` SET `Value` = '#x00000000' WHERE `Name` = 'Signature'

-- The maker's folder goes with the tool, if nothing else is in it.
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('TalvikFolder', 'Tool', 'TalvikFolder', 2)
INSERT INTO `RemoveFile` (`FileKey`, `Component_`, `DirProperty`, `InstallMode`) VALUES ('QuorvelFolder', 'Tool', 'QuorvelFolder', 2)
