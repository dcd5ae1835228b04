# Completion of firmware-updater for PowerShell 5 and later. The tool itself lists the candidates; without
# any, PowerShell completes file names. Names that devices give themselves are quoted: nothing in them is run.
Register-ArgumentCompleter -Native -CommandName firmware-updater, firmware-updater.exe -ScriptBlock {
    param($word, $command, $cursor)
    $words = @($command.CommandElements | Select-Object -Skip 1 |
        Where-Object { $_.Extent.StartOffset -lt $cursor } | ForEach-Object { "$_".Trim('"', "'") })
    if ($word -eq '') {
        # Before 7.3, PowerShell leaves out an empty argument.
        $words += if ($PSVersionTable.PSVersion -ge [version]'7.3') { '' } else { '""' }
    }
    $option = if ($word -match '^--[^=]+=') { $Matches[0] } else { '' }
    & $command.GetCommandName() complete @words 2>$null | Where-Object { -not $_.StartsWith(':') } | ForEach-Object {
        $candidate, $about = $_ -split "`t", 2
        if (-not $about) { $about = $candidate }
        $text = $candidate
        if ($text -notmatch '^[a-zA-Z0-9._/:=+-]+$') {
            $text = "'" + [System.Management.Automation.Language.CodeGeneration]::EscapeSingleQuotedStringContent($text) + "'"
        }
        [System.Management.Automation.CompletionResult]::new($option + $text, $candidate, 'ParameterValue', $about)
    }
}
